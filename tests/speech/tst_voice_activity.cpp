// The real Silero detector on real speech joined with generated noise: it
// finds the speech where it is, nothing in noise alone, and long dictations
// are cut inside their pauses and sent as speech only.
#include "support/SpeechScenes.h"
#include "support/TestSupport.h"
#include "speech/ChunkedTranscription.h"

#include <QtTest>

using namespace dictora;
using namespace dictora::test;

Q_DECLARE_METATYPE(dictora::test::Noise)

class TestVoiceActivity : public QObject {
    Q_OBJECT

    QString model() const { return sharedTestData() + QStringLiteral("/models/for-tests-silero-v6.2.0-ggml.bin"); }
    std::vector<float> clip(const char *name) const { return speechOf(sharedTestData() + "/speech/" + name); }

private Q_SLOTS:
    // Speech joined with a background, and the background alone at a louder
    // level: the speech is found where it is, nothing in noise alone.
    void speechIsFoundWhereItIs_data()
    {
        QTest::addColumn<Noise>("background");
        QTest::addColumn<float>("level");
        QTest::addColumn<float>("aloneLevel");
        QTest::newRow("room silence") << Noise::silence << 0.0f << 0.0f;
        QTest::newRow("white noise -40 dB") << Noise::white << 0.01f << 0.05f;
        QTest::newRow("pink noise") << Noise::pink << 0.01f << 0.1f;
        QTest::newRow("keyboard clicks") << Noise::clicks << 0.3f << 0.6f;
        QTest::newRow("hum, a whistle alone") << Noise::tone << 0.02f << 0.3f;
    }
    void speechIsFoundWhereItIs()
    {
        QFETCH(Noise, background);
        QFETCH(float, level);
        QFETCH(float, aloneLevel);
        const Scene scene = joinScene({clip("librispeech/1089-134686-0001.wav"), clip("librivox/sense_and_sensibility_01_austen_64kb-0880.wav")},
            background, level, 4.0, 3.0);
        const auto detector = VoiceActivityDetector::open(model());
        QVERIFY(detector);
        const std::vector<SpeechSpan> spans = speechSpans(detector->probabilities(scene.samples), qsizetype(scene.samples.size()));
        const FrameScore score = scoreFrames(scene, spans);
        QVERIFY2(score.precision > 0.85 && score.recall > 0.85,
            qPrintable(QStringLiteral("precision %1 recall %2").arg(score.precision).arg(score.recall)));

        // What is sent is the speech, with its 4 s pauses cut to 300 ms.
        const std::vector<float> sent = speechOnly(scene.samples, spans);
        const qsizetype speech = scene.speech[0].end - scene.speech[0].begin + scene.speech[1].end - scene.speech[1].begin;
        QVERIFY2(qsizetype(sent.size()) >= speech * 9 / 10 && qsizetype(sent.size()) < speech + 16000,
            qPrintable(QStringLiteral("%1 samples sent for %2 of speech").arg(sent.size()).arg(speech)));

        const std::vector<float> alone = noise(background, 8.0, aloneLevel);
        const std::vector<SpeechSpan> none = speechSpans(detector->probabilities(alone), qsizetype(alone.size()));
        QVERIFY2(none.empty(), qPrintable(QStringLiteral("%1 spans in noise alone, the first at %2")
                                              .arg(none.size()).arg(none.empty() ? 0 : none[0].begin)));
    }

    // 50 s of dictation with 1.5 s pauses, fed as it would be captured: each
    // chunk starts and ends in a pause, and noise between is never sent.
    void chunksAreCutInsidePauses()
    {
        std::vector<std::vector<float>> clips;
        for (const char *name : {"jfk.wav", "librispeech/1089-134686-0000.wav", "librispeech/1089-134691-0001.wav",
                 "librivox/sense_and_sensibility_01_austen_64kb-0870.wav", "librispeech/2086-149220-0033.wav"})
            clips.push_back(clip(name));
        const Scene scene = joinScene(clips, Noise::pink, 0.01f, 1.5, 2.0);
        std::vector<std::vector<float>> sent;
        ChunkedTranscription chunker(
            [&sent](std::vector<float> chunk, std::shared_ptr<const std::atomic_bool>) {
                sent.push_back(std::move(chunk));
                return QtFuture::makeReadyFuture(AccurateSpeechResult{QStringLiteral("words"), 0, {}});
            },
            model());
        for (size_t at = 0; at < scene.samples.size(); at += 1600)
            chunker.feed(scene.samples.data() + at, std::min<size_t>(1600, scene.samples.size() - at));
        QVERIFY(chunker.chunksSubmitted() >= 1); // cut while recording
        const QString text = chunker.finish().result().text;
        QVERIFY(sent.size() >= 2);
        QCOMPARE(text.count(QStringLiteral("words")), qsizetype(sent.size()));
        const auto edgeLevel = [](const std::vector<float> &chunk, bool atEnd) {
            const auto from = atEnd ? chunk.end() - 320 : chunk.begin();
            return *std::max_element(from, from + 320, [](float a, float b) { return std::abs(a) < std::abs(b); });
        };
        for (const std::vector<float> &chunk : sent) {
            QVERIFY(std::abs(edgeLevel(chunk, false)) < 0.1f);
            QVERIFY(std::abs(edgeLevel(chunk, true)) < 0.1f);
        }
        QVERIFY(chunker.samplesSent() < qint64(scene.samples.size()) - 5 * 16000); // the pauses, shortened
    }

    void nonSpeechOutput_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("dropped");
        QTest::newRow("stock phrase") << QStringLiteral(" Thank you.") << true;
        QTest::newRow("annotation") << QStringLiteral("[BLANK_AUDIO]") << true;
        QTest::newRow("annotations") << QStringLiteral("(music) ♪") << true;
        QTest::newRow("phrase in a sentence") << QStringLiteral("Thank you for the report.") << false;
        QTest::newRow("nothing") << QString() << false;
    }
    void nonSpeechOutput()
    {
        QFETCH(QString, text);
        QFETCH(bool, dropped);
        QCOMPARE(isNonSpeechOutput(text), dropped);
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(TestVoiceActivity)
#include "tst_voice_activity.moc"
