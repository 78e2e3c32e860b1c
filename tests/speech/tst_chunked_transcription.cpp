// Cutting a recording into chunks while it is captured: where the cuts go
// (synthetic loudness profiles), that the chunks handed on add up to exactly
// the recording, that the texts come back as one, and that cancel discards.
#include "speech/ChunkedTranscription.h"

#include <QtTest>

#include <cmath>
#include <mutex>
#include <random>
#include <thread>

#include <QPromise>

using namespace dictora;

namespace {

struct Stretch {
    double seconds;
    float level;
};

// 10 ms frame levels for a profile given in seconds.
std::vector<float> profile(std::initializer_list<Stretch> stretches)
{
    std::vector<float> levels;
    for (const Stretch &s : stretches)
        levels.insert(levels.end(), size_t(std::lround(s.seconds * 100)), s.level);
    return levels;
}

// A signal with that loudness: noise scaled so each stretch has about its RMS.
std::vector<float> signal(std::initializer_list<Stretch> stretches, unsigned seed = 1)
{
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::vector<float> samples;
    for (const Stretch &s : stretches)
        for (qsizetype i = 0; i < qsizetype(std::lround(s.seconds * 16000)); ++i)
            samples.push_back(s.level * noise(random));
    return samples;
}

// The recogniser as the chunker sees it, recording what it was given.
struct RecordingRecogniser {
    std::mutex mutex;
    std::vector<std::vector<float>> chunks;
    std::vector<std::shared_ptr<const std::atomic_bool>> skips;
    std::optional<int> failingChunk;

    ChunkedTranscription::Recognise recognise()
    {
        return [this](std::vector<float> chunk, std::shared_ptr<const std::atomic_bool> skip) {
            std::lock_guard lock(mutex);
            const int index = int(chunks.size());
            chunks.push_back(chunk);
            skips.push_back(skip);
            if (failingChunk == index)
                return QtFuture::makeExceptionalFuture<AccurateSpeechResult>(
                    std::make_exception_ptr(AccurateSpeechError::transcriptionFailed(-3)));
            return QtFuture::makeReadyFuture(AccurateSpeechResult{QStringLiteral(" chunk %1 ").arg(index), 5, {}});
        };
    }
};

void feedInBlocks(ChunkedTranscription &chunker, const std::vector<float> &samples, size_t block)
{
    for (size_t at = 0; at < samples.size(); at += block)
        chunker.feed(samples.data() + at, std::min(block, samples.size() - at));
}

} // namespace

class ChunkedTranscriptionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cutPoint_data()
    {
        QTest::addColumn<std::vector<float>>("levels");
        QTest::addColumn<qsizetype>("cut"); // frame, -1: not yet

        constexpr float speech = 0.1f;
        constexpr float quiet = 0.0005f;
        QTest::newRow("29 s of speech: wait for a pause") << profile({{29, speech}}) << qsizetype(-1);
        QTest::newRow("pause at 22 s") << profile({{22, speech}, {0.4, quiet}, {3, speech}}) << qsizetype(2215);
        QTest::newRow("pause not over yet") << profile({{22, speech}, {0.2, quiet}}) << qsizetype(-1);
        QTest::newRow("short gap skipped, pause taken")
            << profile({{22, speech}, {0.2, quiet}, {3, speech}, {0.5, quiet}, {1, speech}}) << qsizetype(2535);
        QTest::newRow("pause before 20 s does not count")
            << profile({{10, speech}, {1, quiet}, {15, speech}}) << qsizetype(-1);
        QTest::newRow("pause across the 20 s mark") << profile({{19.5, speech}, {1, quiet}, {3, speech}}) << qsizetype(2000);
        QTest::newRow("pause too late: quietest moment instead")
            << profile({{29.9, speech}, {0.5, quiet}}) << qsizetype(2992);
        QTest::newRow("no pause by 30 s: quietest moment")
            << profile({{26, speech}, {0.05, 0.02f}, {4, speech}}) << qsizetype(2602);
        QTest::newRow("relative: -23 dB counts as quiet")
            << profile({{21, 0.5f}, {0.4, 0.035f}, {3, 0.5f}}) << qsizetype(2115);
        QTest::newRow("relative: -18 dB does not")
            << profile({{21, 0.5f}, {0.4, 0.065f}, {3, 0.5f}}) << qsizetype(-1);
        QTest::newRow("silence throughout") << profile({{21, 0.0001f}}) << qsizetype(2000);
    }
    void cutPoint()
    {
        QFETCH(std::vector<float>, levels);
        QFETCH(qsizetype, cut);
        QCOMPARE(chooseCutFrame(levels).value_or(-1), cut);
    }

    // Cancelled, or dropped unfinished: work already queued is skipped,
    // nothing more is handed on, and there is no text.
    void cancelDiscards_data()
    {
        QTest::addColumn<bool>("dropped");
        QTest::newRow("cancelled") << false;
        QTest::newRow("dropped unfinished") << true;
    }
    void cancelDiscards()
    {
        QFETCH(bool, dropped);
        const std::vector<float> recording = signal({{22, 0.1f}, {0.5, 0.0003f}, {10, 0.1f}});
        RecordingRecogniser recogniser;
        auto chunker = std::make_unique<ChunkedTranscription>(recogniser.recognise());
        feedInBlocks(*chunker, recording, 320);
        QCOMPARE(recogniser.chunks.size(), size_t(1));
        QVERIFY(!recogniser.skips.front()->load());
        if (dropped) {
            chunker.reset();
            QVERIFY(recogniser.skips.front()->load());
            return;
        }
        chunker->cancel();
        QVERIFY(recogniser.skips.front()->load());
        feedInBlocks(*chunker, recording, 320);
        QCOMPARE(chunker->finish().result().text, QString());
        QCOMPARE(recogniser.chunks.size(), size_t(1));
    }

    // The joined result becomes ready only when the last chunk is, even when
    // chunks finish out of order on other threads.
    void waitsForEveryChunk()
    {
        std::vector<std::shared_ptr<QPromise<AccurateSpeechResult>>> promises;
        ChunkedTranscription chunker([&](std::vector<float>, std::shared_ptr<const std::atomic_bool>) {
            auto promise = std::make_shared<QPromise<AccurateSpeechResult>>();
            promise->start();
            promises.push_back(promise);
            return promise->future();
        });
        // Longer than one window, so the chunk under way is kept.
        feedInBlocks(chunker, signal({{22, 0.1f}, {0.5, 0.0003f}, {10, 0.1f}}), 16000);
        QFuture<AccurateSpeechResult> future = chunker.finish();
        QCOMPARE(promises.size(), size_t(2));
        promises[1]->addResult(AccurateSpeechResult{QStringLiteral("world."), 1, {}});
        promises[1]->finish();
        QVERIFY(!future.isFinished());
        std::thread other([&] {
            promises[0]->addResult(AccurateSpeechResult{QStringLiteral("Hello"), 1, {}});
            promises[0]->finish();
        });
        other.join();
        QCOMPARE(future.result().text, QStringLiteral("Hello world."));
    }

    // A chunk cut before the recording outgrows one window waits: a recording
    // that fits in one is recognised whole at the stop, never as two windows.
    // A chunk of near silence is cut but never reaches the recogniser. One
    // failed chunk fails the dictation.
    void chunksHandedOn_data()
    {
        QTest::addColumn<std::vector<float>>("recording");
        QTest::addColumn<size_t>("block"); // samples the capture hands on at a time
        QTest::addColumn<int>("duringRecording");
        QTest::addColumn<int>("submitted");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("failing"); // the chunk whose recognition fails, -1: none
        const auto pauseAt22 = [](double tail) { return signal({{22, 0.1f}, {0.5, 0.0003f}, {tail, 0.1f}}); };
        QTest::newRow("26 s: whole at the stop") << pauseAt22(3.5) << size_t(320) << 0 << 1 << "chunk 0" << -1;
        QTest::newRow("29.9 s: whole at the stop") << pauseAt22(7.4) << size_t(320) << 0 << 1 << "chunk 0" << -1;
        QTest::newRow("32 s: a chunk while recording, then the rest")
            << pauseAt22(9.5) << size_t(320) << 1 << 2 << "chunk 0 chunk 1" << -1;
        QTest::newRow("25 s of near silence first") << signal({{25, 0.0005f}, {10, 0.1f}}) << size_t(320) << 0 << 2 << "chunk 0" << -1;
        // Pauses at 12, 24.5, 45 and 63 s; 70 s in all: cut at 24.5 and 45 s, the rest waits for the stop.
        const auto seventy = signal({{12, 0.1f}, {0.5, 0.0003f}, {12, 0.1f}, {0.6, 0.0003f}, {20, 0.1f}, {0.5, 0.0003f},
            {17.5, 0.1f}, {0.8, 0.0003f}, {6.1, 0.1f}});
        const QString three = QStringLiteral("chunk 0 chunk 1 chunk 2");
        QTest::newRow("70 s in 20 ms blocks") << seventy << size_t(320) << 2 << 3 << three << -1;
        QTest::newRow("70 s in odd blocks") << seventy << size_t(777) << 2 << 3 << three << -1;
        QTest::newRow("70 s all at once") << seventy << size_t(100'000'000) << 2 << 3 << three << -1;
        const auto twoPauses = signal({{22, 0.1f}, {0.5, 0.0003f}, {22, 0.1f}, {0.5, 0.0003f}, {3, 0.1f}});
        QTest::newRow("first of three fails") << twoPauses << size_t(320) << 2 << 3 << QString() << 0;
        QTest::newRow("the rest after the stop fails") << twoPauses << size_t(320) << 2 << 3 << QString() << 2;
    }
    void chunksHandedOn()
    {
        QFETCH(std::vector<float>, recording);
        QFETCH(size_t, block);
        QFETCH(int, duringRecording);
        QFETCH(int, submitted);
        QFETCH(QString, text);
        QFETCH(int, failing);
        RecordingRecogniser recogniser;
        recogniser.failingChunk = failing;
        ChunkedTranscription chunker(recogniser.recognise());
        feedInBlocks(chunker, recording, block);
        QCOMPARE(int(recogniser.chunks.size()), duringRecording);
        if (failing >= 0) {
            try {
                chunker.finish().waitForFinished();
                QFAIL("the dictation should have failed");
            } catch (const AccurateSpeechError &error) {
                QCOMPARE(error.code(), -3);
            }
            QCOMPARE(chunker.chunksSubmitted(), submitted);
            return;
        }
        const AccurateSpeechResult result = chunker.finish().result();
        QCOMPARE(chunker.chunksSubmitted(), submitted);
        QCOMPARE(result.text, text);
        QCOMPARE(chunker.samplesFed(), qint64(recording.size()));
        std::vector<float> joined;
        for (const std::vector<float> &chunk : recogniser.chunks)
            joined.insert(joined.end(), chunk.begin(), chunk.end());
        if (text.count(QLatin1String("chunk")) == submitted) // every chunk recognised: they are the recording
            QVERIFY(joined == recording);
    }
};

QTEST_GUILESS_MAIN(ChunkedTranscriptionTest)

#include "tst_chunked_transcription.moc"
