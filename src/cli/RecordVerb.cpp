// dictora record: records the microphone through the same capture service as
// a dictation and writes the 16 kHz samples to a WAV file.
#include "audio/AudioCaptureService.h"
#include "audio/WavFile.h"
#include "cli/CommandLine.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

#include <chrono>
#include <cmath>

namespace dictora::cli {

namespace {

const char *const kRecordHelp =
    "Usage: dictora record [--seconds N] FILE.wav\n"
    "\n"
    "Records the default microphone for N seconds (default 5, at most 1800) and\n"
    "writes what was captured as 16 kHz mono 32-bit float WAV. While recording,\n"
    "prints the four indicator levels as they arrive; at the end, the number of\n"
    "samples and their RMS level.\n"
    "\n"
    "Options:\n"
    "  --seconds N   recording length in seconds (a decimal number above 0)\n"
    "  --help        show this help\n"
    "\n"
    "Exit status: 0 recorded, 1 no microphone or the file could not be written,\n"
    "2 bad options.\n";

QString level(float value)
{
    return QString::number(double(value), 'f', 3);
}

} // namespace

int runRecord(const QStringList &arguments)
{
    const QString verb = QStringLiteral("record");
    double seconds = 5;
    QString path;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            printOut(QString::fromLatin1(kRecordHelp));
            return kExitOk;
        }
        QString value;
        if (argument == QLatin1String("--seconds")) {
            if (i + 1 >= arguments.size())
                return usageError(verb, QStringLiteral("--seconds needs a number"));
            value = arguments.at(++i);
        } else if (argument.startsWith(QLatin1String("--seconds="))) {
            value = argument.mid(10);
        } else if (argument.startsWith(QLatin1Char('-')) && argument != QLatin1String("-")) {
            return usageError(verb, QStringLiteral("unknown option '%1'").arg(argument));
        } else if (path.isEmpty()) {
            path = argument;
            continue;
        } else {
            return usageError(verb, QStringLiteral("unexpected argument '%1'").arg(argument));
        }
        bool ok = false;
        seconds = value.toDouble(&ok);
        if (!ok || !std::isfinite(seconds) || seconds <= 0 || seconds > 1800)
            return usageError(verb, QStringLiteral("--seconds must be a number above 0 and at most 1800, not '%1'").arg(value));
    }
    if (path.isEmpty())
        return usageError(verb, QStringLiteral("missing FILE.wav"));
    if (QFileInfo(path).isDir())
        return usageError(verb, QStringLiteral("'%1' is a folder").arg(path));
    // Refuse before recording, not after: a lost recording cannot be redone.
    if (!QFileInfo(QFileInfo(path).absolutePath()).isDir()) {
        printErr(QStringLiteral("dictora record: the folder of '%1' does not exist.\n").arg(path));
        return kExitFailure;
    }

    AudioCaptureService service;
    const AudioCaptureService::MicrophoneStatus status = service.microphoneStatus();
    if (!status.authorized) {
        printErr(QStringLiteral("dictora record: no microphone: %1.\n").arg(status.reason));
        return kExitFailure;
    }
    const auto startedAt = std::chrono::steady_clock::now();
    try {
        service.start([](AudioMeterLevels l) {
            printOut(QStringLiteral("levels %1 %2 %3 %4\n").arg(level(l.first), level(l.second), level(l.third), level(l.fourth)));
        });
    } catch (const Error &error) {
        printErr(QStringLiteral("dictora record: %1\n").arg(error.description()));
        return kExitFailure;
    }

    QTimer::singleShot(int(std::llround(seconds * 1000)), QCoreApplication::instance(), [] { QCoreApplication::exit(0); });
    QCoreApplication::exec();
    const PulseCaptureEngine::Statistics statistics = service.engine().statistics();
    const CapturedAudioResult result = service.stop();
    if (statistics.buffers > 0) {
        const qint64 startNs = std::chrono::duration_cast<std::chrono::nanoseconds>(startedAt.time_since_epoch()).count();
        printOut(QStringLiteral("buffers %1 (first after %2 ms)\n")
                     .arg(statistics.buffers)
                     .arg(double(statistics.firstBufferNs - startNs) / 1e6, 0, 'f', 1));
    }

    printOut(QStringLiteral("samples %1\nseconds %2\nrms %3\n")
                 .arg(result.samples.size())
                 .arg(double(result.samples.size()) / 16000.0, 0, 'f', 3)
                 .arg(double(result.rmsLevel), 0, 'f', 6));
    if (result.reachedSafetyLimit)
        printOut(QStringLiteral("the 30-minute limit was reached; later audio was dropped\n"));
    const QString error = writeMonoFloatWav(path, result.samples, 16000);
    if (!error.isEmpty()) {
        printErr(QStringLiteral("dictora record: could not write '%1': %2\n").arg(path, error));
        return kExitFailure;
    }
    return kExitOk;
}

} // namespace dictora::cli
