// Real recordings played into the virtual microphone, captured by the real
// capture path and cut into chunks while they play, each chunk recognised by
// the real library (an empty-weight model: no words, so the samples handed to
// the recogniser are what is checked). Where the cuts fall is
// tst_chunked_transcription's and tst_voice_activity's. Run under with-pulse.
#include "PulseTestTools.h"
#include "audio/AudioCaptureService.h"
#include "audio/WavFile.h"
#include "speech/AudioFile.h"
#include "speech/ChunkedTranscription.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <mutex>

using namespace dictora;
namespace pulse = dictora::test::pulse;

namespace {

constexpr int kRate = 16000;

// Clips of read speech one after another, each followed by a breath of
// silence, until `seconds` are reached.
std::vector<float> dictation(double seconds)
{
    const QString speech = test::sharedTestData() + QStringLiteral("/speech/");
    QStringList clips;
    for (const char *folder : {"librivox", "hifitts"})
        for (const QString &name : QDir(speech + QLatin1String(folder)).entryList({QStringLiteral("*.wav")}, QDir::Files, QDir::Name))
            clips.append(speech + QLatin1String(folder) + QLatin1Char('/') + name);
    std::vector<float> samples;
    for (const QString &clip : clips) {
        if (samples.size() >= size_t(seconds * kRate))
            break;
        const DecodedAudio audio = AudioFile::decodeToMono16k(clip);
        samples.insert(samples.end(), audio.samples.begin(), audio.samples.end());
        samples.insert(samples.end(), size_t(0.6 * kRate), 0.0f);
    }
    return samples;
}

struct RecogniserSpy {
    explicit RecogniserSpy(AccurateSpeechEngine &recogniser) : engine(recogniser) {}
    AccurateSpeechEngine &engine;
    std::mutex mutex;
    std::vector<std::vector<float>> chunks;

    ChunkedTranscription::Recognise recognise()
    {
        return [this](std::vector<float> chunk, std::shared_ptr<const std::atomic_bool> skip) {
            std::unique_lock lock(mutex);
            chunks.push_back(chunk);
            lock.unlock();
            return engine.transcribe(std::move(chunk), kRate, std::move(skip));
        };
    }
};

} // namespace

class ChunkedCaptureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        const QString model = test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.en.bin");
        m_engine.load(model).waitForFinished();
        m_recording = dictation(52);
        QVERIFY(m_recording.size() > size_t(50 * kRate));
        // Lead in and out with silence: the null sink drops a new stream's first milliseconds.
        std::vector<float> padded(size_t(0.3 * kRate), 0.0f);
        padded.insert(padded.end(), m_recording.begin(), m_recording.end());
        padded.insert(padded.end(), size_t(0.5 * kRate), 0.0f);
        m_file = m_dir.filePath(QStringLiteral("dictation.wav"));
        const QString failure = writeMonoFloatWav(m_file, padded, kRate);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    void chunksAreTheCapturedRecording()
    {
        AudioCaptureService service;
        QVERIFY(service.requestMicrophonePermission());
        RecogniserSpy spy{m_engine};
        ChunkedTranscription chunker(spy.recognise());
        service.setSampleSink([&chunker](const float *samples, size_t count) { chunker.feed(samples, count); });
        service.start({});
        auto player = pulse::play(m_file, QStringLiteral("vmic_sink"));
        QVERIFY(player->waitForFinished(180000));
        QCOMPARE(player->exitCode(), 0);
        const qsizetype wanted = qsizetype(m_recording.size()) + 4800 + 4000;
        QVERIFY(QTest::qWaitFor([&] { return service.finalCapture().sampleCount() >= wanted; }, 20000));
        const int beforeStop = chunker.chunksSubmitted();
        const CapturedAudioResult captured = service.stop();
        const AccurateSpeechResult result = chunker.finish().result();

        // Recognition began while the speech was still playing.
        QVERIFY2(beforeStop >= 1, qPrintable(QString::number(beforeStop)));
        QCOMPARE(result.text, QString()); // the empty model hears nothing, and nothing is made up

        // Nothing lost or doubled: the chunks, end to end, are the capture.
        std::vector<float> joined;
        for (const std::vector<float> &chunk : spy.chunks)
            joined.insert(joined.end(), chunk.begin(), chunk.end());
        QCOMPARE(joined.size(), captured.samples.size());
        QVERIFY(joined == captured.samples);
        for (size_t i = 0; i + 1 < spy.chunks.size(); ++i) // cut while recording, inside one window
            QVERIFY2(spy.chunks[i].size() >= size_t(20 * kRate) && spy.chunks[i].size() <= size_t(30 * kRate),
                qPrintable(QString::number(spy.chunks[i].size() / double(kRate))));
    }

private:
    AccurateSpeechEngine m_engine{SpeechDevicePreference::cpu};
    QTemporaryDir m_dir;
    std::vector<float> m_recording;
    QString m_file;
};

int main(int argc, char **argv)
{
    if (dictora::test::sharedTestData().isEmpty())
        return dictora::test::skipAll("../shared/testdata is not beside the repository");
    if (!dictora::test::pulse::serverConfigured())
        return dictora::test::skipAll("needs a PulseAudio server: run under tests/support/pulse/with-pulse");
    QCoreApplication app(argc, argv);
    ChunkedCaptureTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_chunked_capture.moc"
