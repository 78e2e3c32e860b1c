// Real speech played into the virtual microphone comes back as the same
// 16 kHz signal (run under with-pulse; needs the shared speech recordings).
#include "PulseTestTools.h"
#include "audio/AudioCaptureService.h"
#include "audio/WavFile.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>

using namespace dictora;
namespace pulse = dictora::test::pulse;

class AudioCaptureSpeechTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void speechRoundTrip_data();
    void speechRoundTrip();
};

void AudioCaptureSpeechTest::speechRoundTrip_data()
{
    QTest::addColumn<QString>("file");

    QTest::newRow("jfk") << QStringLiteral("jfk.wav");
    QTest::newRow("librispeech 1089-134686-0001") << QStringLiteral("librispeech/1089-134686-0001.wav");
    QTest::newRow("cards") << QDir(dictora::test::sharedTestData() + QStringLiteral("/speech/cards"))
                                  .entryList({QStringLiteral("*.wav")}, QDir::Files, QDir::Name)
                                  .value(0).prepend(QStringLiteral("cards/"));
}

void AudioCaptureSpeechTest::speechRoundTrip()
{
    QFETCH(QString, file);
    const QString path = dictora::test::sharedTestData() + QStringLiteral("/speech/") + file;
    if (!QFileInfo::exists(path))
        QSKIP(qPrintable(QStringLiteral("%1 is not in the shared test data").arg(file)));
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

int main(int argc, char **argv)
{
    if (dictora::test::sharedTestData().isEmpty())
        return dictora::test::skipAll("../shared/testdata is not beside the repository");
    if (!dictora::test::pulse::serverConfigured())
        return dictora::test::rigMissing("needs a PulseAudio server: run under tests/support/pulse/with-pulse");
    QCoreApplication app(argc, argv);
    AudioCaptureSpeechTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_audiocapturespeech.moc"
