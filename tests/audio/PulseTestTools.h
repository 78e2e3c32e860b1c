#pragma once

#include <QProcess>
#include <QScopeGuard>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

// Helpers for tests that run under tests/support/pulse/with-pulse: drive the
// private server with pactl, play into its virtual microphone, compare signals.
namespace dictora::test::pulse {

bool serverConfigured(); // PULSE_SERVER set by the wrapper
QString pactl(const QStringList &arguments, bool *ok = nullptr);
int loadModule(const QString &module, const QStringList &arguments); // index, -1 on failure
bool unloadModule(const QString &moduleOrIndex);

// A playback sink and its monitor remapped to an input source, made the default.
struct VirtualMicrophone {
    QString sink;
    QString source;
    int sinkModule = -1;
    int sourceModule = -1;
    bool ok() const { return sinkModule >= 0 && sourceModule >= 0; }
};
VirtualMicrophone createMicrophone(const QString &name, int rate, int channels);
void removeMicrophone(const VirtualMicrophone &microphone);
// Puts the wrapper's own "vmic" back (after a test removed everything).
bool restoreDefaultMicrophone();
// Unloads every microphone and sink: not even a monitor is left to record from.
bool removeEveryMicrophone();

// A module-pipe-source microphone fed through a FIFO: exactly the bytes
// written arrive, nothing when nothing is written.
struct PipeMicrophone {
    QString source;
    QString fifo;
    int module = -1;
    bool ok() const { return module >= 0; }
};
PipeMicrophone createPipeMicrophone(const QString &name, const QString &fifo, int rate, int channels);
// Interleaved float32 frames into the FIFO at the pace a microphone would
// deliver them (`bytesPerSecond`): a burst of a whole clip overruns the
// server's source on a busy machine, which then drops a piece of it.
bool feedPipe(const PipeMicrophone &microphone, const QByteArray &interleavedFloats, int bytesPerSecond);

// At the end of the scope: the microphone (still there or not) goes and "vmic"
// is the default again.
inline auto restoredAfter(const VirtualMicrophone &microphone)
{
    return qScopeGuard([&microphone] {
        removeMicrophone(microphone);
        restoreDefaultMicrophone();
    });
}
inline auto restoredAfter(const PipeMicrophone &microphone)
{
    return qScopeGuard([&microphone] {
        if (microphone.ok())
            unloadModule(QString::number(microphone.module));
        restoreDefaultMicrophone();
    });
}
// Writes a 32-bit float file of `seconds` from sox's synth (`synth`: its
// arguments after the length, e.g. "sine 440"), at half scale.
bool synthesize(const QString &file, int rate, int channels, double seconds, const QString &synth);

// Starts paplay into the sink; the caller waits for it.
std::unique_ptr<QProcess> play(const QString &file, const QString &sink);
bool runTool(const QString &program, const QStringList &arguments, QString *output = nullptr);

// Normalised correlation of the needle with the haystack from `lag` on.
double correlationAt(const std::vector<float> &haystack, qsizetype lag, const std::vector<float> &needle);

} // namespace dictora::test::pulse

// A test's main(): without the wrapper's server the rig is missing.
#define DICTORA_PULSE_TEST_MAIN(TestClass)                                                                  \
    int main(int argc, char **argv)                                                                         \
    {                                                                                                       \
        if (!dictora::test::pulse::serverConfigured())                                                      \
            return dictora::test::rigMissing("needs a PulseAudio server: run under tests/support/pulse/with-pulse"); \
        QCoreApplication app(argc, argv);                                                                   \
        TestClass test;                                                                                     \
        return QTest::qExec(&test, argc, argv);                                                             \
    }
