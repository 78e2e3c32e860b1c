// The capture service against a real PulseAudio server (run under with-pulse).
#include "PulseTestTools.h"
#include "audio/AudioCaptureService.h"
#include "audio/AudioCaptureThread.h"
#include "audio/WavFile.h"
#include "core/RuntimeLog.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <cmath>

using namespace dictora;
namespace pulse = dictora::test::pulse;

namespace {

QString logText(const RuntimeLog &log)
{
    QFile file(log.filePath());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// Runs the event loop until the service holds atLeast samples; false if the
// audio stops coming.
bool waitForSamples(const AudioCaptureService &service, qsizetype atLeast)
{
    return QTest::qWaitFor([&] { return service.finalCapture().sampleCount() >= atLeast; }, 20000);
}

} // namespace

class AudioCapturePulseTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<RuntimeLog> m_log;

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QFile::remove(m_dir.filePath(QStringLiteral("runtime.log")));
        m_log = std::make_unique<RuntimeLog>(m_dir.filePath(QStringLiteral("runtime.log")));
    }

    // Formats the server may hand us, fed through a pipe source, which is
    // exact: every frame written after start must be captured. The sink path
    // is speechRoundTrip's.
    void roundTrip_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::newRow("48 kHz stereo") << 48000 << 2;
        QTest::newRow("44.1 kHz mono") << 44100 << 1;
        QTest::newRow("22.05 kHz mono") << 22050 << 1;
    }

    void roundTrip()
    {
        QFETCH(int, rate);
        QFETCH(int, channels);
        const pulse::PipeMicrophone pipeMic =
            pulse::createPipeMicrophone(QStringLiteral("pipemic"), m_dir.filePath(QStringLiteral("fifo")), rate, channels);
        const auto cleanup = pulse::restoredAfter(pipeMic);
        QVERIFY(pipeMic.ok());

        // A sweep is never periodic, so its position in the recording is unique.
        const QString tone = m_dir.filePath(QStringLiteral("sweep.wav"));
        const QString reference = m_dir.filePath(QStringLiteral("sweep16k.wav"));
        QVERIFY(pulse::synthesize(tone, rate, channels, 0.8, QStringLiteral("sine 200-3000")));
        QVERIFY(pulse::runTool(QStringLiteral("sox"), {tone, QStringLiteral("-r"), QStringLiteral("16000"), QStringLiteral("-c"),
                                                       QStringLiteral("1"), QStringLiteral("-e"), QStringLiteral("float"), reference}));
        const std::vector<float> expected = readMonoSamples(reference);
        QVERIFY(expected.size() > 12000);

        AudioCaptureService service(m_log.get());
        const PulseCaptureEngine::SourceInfo source = service.engine().defaultSource();
        QCOMPARE(source.sourceName, pipeMic.source);
        QCOMPARE(source.format.sampleRate, double(rate));
        QCOMPARE(source.format.channelCount, channels);

        QList<AudioMeterLevels> levels;
        bool offMainThread = false;
        QThread *mainThread = QThread::currentThread();
        service.start([&](AudioMeterLevels l) {
            offMainThread |= QThread::currentThread() != mainThread;
            levels.append(l);
        });
        QVERIFY(service.isRecording());
        QFile file(tone);
        QVERIFY(file.open(QIODevice::ReadOnly));
        file.seek(file.size() - qint64(0.8 * rate) * channels * 4); // past the header: the frames only
        QVERIFY(pulse::feedPipe(pipeMic, file.readAll(), rate * channels * 4));
        // The last partial fragment and the resampler tail come with stop().
        QVERIFY(waitForSamples(service, qsizetype(expected.size()) - 2000));
        const CapturedAudioResult result = service.stop();
        QVERIFY(!service.isRecording());

        double correlation = 0;
        const qsizetype lag = pulse::bestLag(result.samples, expected, &correlation);
        QVERIFY2(correlation > 0.999, qPrintable(QStringLiteral("correlation %1 at %2").arg(correlation).arg(lag)));
        // Nothing of the head is missing, and the tail is there too.
        QVERIFY2(lag >= 0 && lag <= 2, qPrintable(QString::number(lag)));
        QVERIFY(std::abs(qsizetype(result.samples.size()) - qsizetype(expected.size())) <= 2);
        QVERIFY(result.rmsLevel > 0.05f);
        QVERIFY(!result.reachedSafetyLimit);

        QCoreApplication::processEvents();
        QVERIFY(!levels.isEmpty());
        QVERIFY(!offMainThread);
        float loudest = 0;
        for (const AudioMeterLevels &l : levels)
            loudest = std::max(loudest, l.maximum());
        // A 0.5 sine is -9 dBFS RMS (level 0.955); quarters of small buffers
        // that catch a low tone's crest read a little higher.
        QVERIFY2(loudest > 0.93f, qPrintable(QString::number(loudest)));
    }

    // Stop and cancel when idle do nothing; a second start neither resets the
    // recording nor takes the meter over; cancel keeps what was captured
    // until the next start, which begins empty.
    void startStopAndCancel()
    {
        AudioCaptureService service(m_log.get());
        service.cancel();
        QVERIFY(service.stop().samples.empty());
        int firstCalls = 0;
        int secondCalls = 0;
        service.start([&](AudioMeterLevels) { ++firstCalls; });
        QVERIFY(waitForSamples(service, 4000));
        const qsizetype before = service.finalCapture().sampleCount();
        service.start([&](AudioMeterLevels) { ++secondCalls; });
        QVERIFY(service.finalCapture().sampleCount() >= before); // not reset
        QVERIFY(waitForSamples(service, before + 4000));
        service.cancel();
        QVERIFY(!service.isRecording());
        const qsizetype kept = service.finalCapture().sampleCount();
        const CapturedAudioResult result = service.stop();
        QCOMPARE(qsizetype(result.samples.size()), kept);
        QVERIFY(kept >= before + 4000);
        QCOMPARE(result.rmsLevel, 0.0f); // silence from the idle virtual microphone
        QCoreApplication::processEvents();
        QVERIFY(firstCalls > 0);
        QCOMPARE(secondCalls, 0);

        service.start({});
        QVERIFY(service.stop().samples.size() < result.samples.size());
    }

    void noInputSource()
    {
        auto cleanup = qScopeGuard([] { pulse::restoreDefaultMicrophone(); });
        // Without sinks there are not even monitor sources to fall back on.
        QVERIFY(pulse::removeEveryMicrophone());

        AudioCaptureService service(m_log.get());
        QVERIFY(!service.requestMicrophonePermission());
        QVERIFY(logText(*m_log).contains(QLatin1String("microphone permission denied reason=the sound server has no default input source")));
        try {
            service.start({});
            QFAIL("start succeeded without a microphone");
        } catch (const DictoraAudioCaptureError &error) {
            QCOMPARE(error.errorCase(), DictoraAudioCaptureError::invalidInputFormat);
        }
        QVERIFY(!service.isRecording());
        QVERIFY(service.stop().samples.empty());

        // The microphone comes back: the same service records again.
        QVERIFY(pulse::restoreDefaultMicrophone());
        QVERIFY(service.requestMicrophonePermission());
        service.start({});
        QVERIFY(waitForSamples(service, 1600));
        service.stop();
    }

    void sourceRemovedWhileRecording_data()
    {
        QTest::addColumn<bool>("removeEverything");
        QTest::addColumn<QString>("expectedLog");

        QTest::newRow("another source remains") << false << QStringLiteral("microphone changed while recording source=vmic");
        QTest::newRow("no source remains") << true << QStringLiteral("microphone lost while recording");
    }

    void sourceRemovedWhileRecording()
    {
        QFETCH(bool, removeEverything);
        QFETCH(QString, expectedLog);

        pulse::VirtualMicrophone mic = pulse::createMicrophone(QStringLiteral("usb"), 48000, 1);
        const auto cleanup = pulse::restoredAfter(mic);
        QVERIFY(mic.ok());
        pulse::pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")});
        pulse::pactl({QStringLiteral("set-default-source"), mic.source});

        AudioCaptureService service(m_log.get());
        service.start({});
        QVERIFY(waitForSamples(service, 3200));
        if (removeEverything) {
            QVERIFY(pulse::removeEveryMicrophone());
        } else {
            pulse::removeMicrophone(mic);
        }
        mic = {};
        QTRY_VERIFY_WITH_TIMEOUT(logText(*m_log).contains(expectedLog), 20000);
        const qsizetype before = service.finalCapture().sampleCount();
        const CapturedAudioResult result = service.stop();
        QVERIFY(qsizetype(result.samples.size()) >= before);
        QVERIFY(before >= 3200);
        QVERIFY(!service.isRecording());
    }

    // Real speech played into the virtual microphone comes back as the same
    // 16 kHz signal (needs the shared speech recordings).
    void speechRoundTrip()
    {
        const QString path = dictora::test::sharedTestData() + QStringLiteral("/speech/jfk.wav");
        if (!QFileInfo::exists(path))
            QSKIP("jfk.wav is not in the shared test data");
        QTemporaryDir dir;
        int rate = 0;
        std::vector<float> original = readMonoSamples(path, &rate);
        QCOMPARE(rate, 16000);
        QVERIFY(!original.empty());

        // The null sink drops the first milliseconds of a new stream before any
        // client sees them, and stops delivering once the stream ends: lead the
        // speech in and out with silence.
        const QString padded = dir.filePath(QStringLiteral("padded.wav"));
        QVERIFY(pulse::runTool(QStringLiteral("sox"), {path, padded, QStringLiteral("pad"), QStringLiteral("0.3"), QStringLiteral("0.5")}));

        AudioCaptureService service;
        QVERIFY(service.requestMicrophonePermission());
        int levelCount = 0;
        service.start([&](AudioMeterLevels) { ++levelCount; });
        auto player = pulse::play(padded, QStringLiteral("vmic_sink"));
        QVERIFY(player->waitForFinished(60000));
        QCOMPARE(player->exitCode(), 0);
        // All of the speech, and most of the silence after it.
        const qsizetype wanted = qsizetype(original.size()) + 4800 + 4000;
        QVERIFY(QTest::qWaitFor([&] { return service.finalCapture().sampleCount() >= wanted; }, 20000));
        const qint64 holes = service.engine().statistics().holeFrames;
        const CapturedAudioResult result = service.stop();

        double correlation = 0;
        const qsizetype lag = pulse::bestLag(result.samples, original, &correlation);
        qsizetype drift = 0;
        const double worst = pulse::worstWindowCorrelation(result.samples, original, lag, &drift);
        qInfo("correlation %.4f (worst second %.4f, drift %lld), speech begins %lld samples into the recording, %lld frames of holes",
              correlation, worst, qlonglong(drift), qlonglong(lag), qlonglong(holes));
        if (worst <= 0.99) { // keep the evidence
            dir.setAutoRemove(false);
            writeMonoFloatWav(dir.filePath(QStringLiteral("captured.wav")), result.samples, 16000);
            qInfo("captured audio kept in %s", qPrintable(dir.path()));
        }
        // Second by second: a loaded test machine may make the server stretch
        // playback a little, which the whole-file figure would punish.
        QVERIFY2(worst > 0.99, qPrintable(QStringLiteral("correlation %1 at %2").arg(worst).arg(lag)));
        QVERIFY2(lag >= 0, qPrintable(QStringLiteral("%1 ms of the start missing").arg(-lag / 16)));
        QVERIFY(lag + drift + qsizetype(original.size()) <= qsizetype(result.samples.size()));

        // The speech's own loudness survives the trip (the rest is silence).
        double sum = 0;
        for (float v : original)
            sum += double(v) * v;
        const double originalEnergy = sum;
        const double capturedEnergy = double(result.rmsLevel) * result.rmsLevel * double(result.samples.size());
        QVERIFY2(std::abs(capturedEnergy / originalEnergy - 1.0) < 0.1, qPrintable(QString::number(capturedEnergy / originalEnergy)));
        QCoreApplication::processEvents();
        QVERIFY(levelCount > 0);
    }

    // A chosen input is heard instead of the default; when it goes the default
    // takes over with a notice, and it is used again once it is back. (One
    // missing from the start is every e2e paste run's.)
    void chosenSourceGoesAndComesBack()
    {
        pulse::VirtualMicrophone desk = pulse::createMicrophone(QStringLiteral("desk"), 48000, 1);
        const auto cleanup = pulse::restoredAfter(desk);
        QVERIFY(desk.ok());
        pulse::pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")});
        const QString tone = m_dir.filePath(QStringLiteral("tone.wav"));
        QVERIFY(pulse::synthesize(tone, 48000, 1, 30, QStringLiteral("sine 440")));

        AudioCaptureService service(m_log.get());
        QSignalSpy notices(&service, &AudioCaptureService::notice);
        // What an open settings sheet lists follows the inputs as they go and come.
        AudioCaptureThread sheet;
        QStringList listed;
        sheet.watchSources([&listed](const QList<PulseCaptureEngine::Source> &now) {
            listed.clear();
            for (const PulseCaptureEngine::Source &source : now)
                listed << source.name;
        });
        const QList<PulseCaptureEngine::Source> sources = service.sources();
        QVERIFY(std::any_of(sources.begin(), sources.end(), [](const auto &s) { return s.name == QLatin1String("desk"); }));
        QVERIFY(std::none_of(sources.begin(), sources.end(), [](const auto &s) { return s.name.endsWith(QLatin1String(".monitor")); }));
        service.setChosenSource(QStringLiteral("desk"));
        QCOMPARE(service.engine().defaultSource().sourceName, QStringLiteral("desk"));

        // The tone plays into the chosen input only: hearing it proves which one records.
        const std::unique_ptr<QProcess> player = pulse::play(tone, desk.sink);
        service.start({});
        QVERIFY(waitForSamples(service, 16000));
        pulse::removeMicrophone(desk);
        desk = {};
        QTRY_COMPARE_WITH_TIMEOUT(notices.size(), 1, 20000);
        QTRY_VERIFY(listed.contains(QStringLiteral("vmic")) && !listed.contains(QStringLiteral("desk")));
        QCOMPARE(notices.at(0).at(0).toString(), QStringLiteral("The chosen microphone went away; recording goes on from vmic."));
        const qsizetype before = service.finalCapture().sampleCount();
        QVERIFY(waitForSamples(service, before + 3200)); // the default goes on recording
        const CapturedAudioResult heard = service.stop();
        QVERIFY2(heard.rmsLevel > 0.05f, qPrintable(QString::number(heard.rmsLevel)));
        player->kill();
        player->waitForFinished();

        // Still missing at the next start: the default, not said again; back: chosen again.
        service.start({});
        QVERIFY(service.isRecording());
        service.stop();
        QCOMPARE(notices.size(), 1);
        desk = pulse::createMicrophone(QStringLiteral("desk"), 48000, 1);
        QVERIFY(desk.ok());
        QTRY_VERIFY(listed.contains(QStringLiteral("desk")));
        pulse::pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")});
        service.start({});
        service.stop();
        QCOMPARE(notices.size(), 2);
        QCOMPARE(notices.at(1).at(0).toString(), QStringLiteral("The chosen microphone is back."));
        QCOMPARE(service.engine().defaultSource().sourceName, QStringLiteral("desk"));
    }

    // Kills the server: keep last.
    void serverGoneWhileRecording()
    {
        AudioCaptureService service(m_log.get());
        service.start({});
        QVERIFY(waitForSamples(service, 3200));
        // The server exits on request; the wrapper's cleanup copes with a dead server.
        QVERIFY(pulse::runTool(QStringLiteral("pulseaudio"), {QStringLiteral("--kill")}));
        QTRY_VERIFY_WITH_TIMEOUT(logText(*m_log).contains(QLatin1String("sound server connection lost while recording")), 20000);
        const qsizetype before = service.finalCapture().sampleCount();
        const CapturedAudioResult result = service.stop();
        QVERIFY(qsizetype(result.samples.size()) >= before);
        QVERIFY(before >= 3200);

        // Starting again fails cleanly instead of hanging.
        QVERIFY_THROWS_EXCEPTION(AudioEngineError, service.start({}));
        QVERIFY(!service.requestMicrophonePermission());
    }
};

int main(int argc, char **argv)
{
    if (!dictora::test::pulse::serverConfigured())
        return dictora::test::rigMissing("needs a PulseAudio server: run under tests/support/pulse/with-pulse");
    QCoreApplication app(argc, argv);
    AudioCapturePulseTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_audiocapturepulse.moc"
