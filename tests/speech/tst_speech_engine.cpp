#include "speech/AccurateSpeechEngine.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <optional>

using namespace dictora;

namespace {

QString modelFile(const char *name)
{
    return test::sharedTestData() + QStringLiteral("/models/") + QLatin1String(name);
}

// Waits for the future and returns the engine error it finished with, if any.
template <typename T> std::optional<AccurateSpeechError> errorOf(QFuture<T> future)
{
    try {
        future.waitForFinished();
    } catch (const AccurateSpeechError &error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

class SpeechEngineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void joinSegments_data()
    {
        QTest::addColumn<QList<QByteArray>>("segments");
        QTest::addColumn<QString>("text");
        QTest::newRow("leading spaces kept between") << QList<QByteArray>{" Hello", " world."} << "Hello world.";
        QTest::newRow("no separator added") << QList<QByteArray>{" Hel", "lo"} << "Hello";
        QTest::newRow("newlines trimmed") << QList<QByteArray>{"\n  Ready.\n", " \t"} << "Ready.";
        QTest::newRow("character split across segments") << QList<QByteArray>{" caf\xc3", "\xa9 au lait"} << "café au lait";
    }
    void joinSegments()
    {
        QFETCH(QList<QByteArray>, segments);
        QFETCH(QString, text);
        QCOMPARE(AccurateSpeechEngine::joinSegments(segments), text);
    }

    void wrongSampleRateFailsEvenWithModel_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<bool>("loaded");
        for (int rate : {48000, 16001, 0}) {
            QTest::addRow("%d without model", rate) << rate << false;
            QTest::addRow("%d with model", rate) << rate << true;
        }
    }
    void wrongSampleRateFailsEvenWithModel()
    {
        QFETCH(int, rate);
        QFETCH(bool, loaded);
        AccurateSpeechEngine engine;
        if (loaded)
            QVERIFY(!errorOf(engine.load(modelFile("for-tests-ggml-tiny.bin"))));
        const auto error = errorOf(engine.transcribe(QList<float>(16000, 0.0f), rate));
        QVERIFY(error);
        QCOMPARE(error->errorCase(), AccurateSpeechError::Case::invalidAudioSampleRate);
    }

    // Nothing awaited in between: each transcription sees the model that the
    // load queued before it, and a failed reload leaves none, until a good one.
    void failedReloadLeavesNoModel_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("exists");
        QTest::newRow("missing file") << QByteArray() << false;
        QTest::newRow("not a model") << QByteArray("this is not a ggml model, just text\n").repeated(100) << true;
        QTest::newRow("a recording") << QByteArray("RIFF\x24\x00\x00\x00WAVEfmt ", 16).leftJustified(20000, '\0') << true;
    }
    void failedReloadLeavesNoModel()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, exists);
        QTemporaryDir dir;
        const QString bad = dir.filePath(QStringLiteral("bad.bin"));
        if (exists)
            QVERIFY(dictora::test::writeFile(bad, content));

        AccurateSpeechEngine engine;
        QFuture<void> load = engine.load(modelFile("for-tests-ggml-tiny.bin"));
        QFuture<AccurateSpeechResult> first = engine.transcribe(QList<float>(16000, 0.0f), 16000);
        QFuture<void> reload = engine.load(bad);
        QFuture<AccurateSpeechResult> second = engine.transcribe(QList<float>(8000, 0.0f), 16000);
        QVERIFY(!errorOf(load));
        QVERIFY(!errorOf(first));
        const auto loadError = errorOf(reload);
        QVERIFY(loadError);
        QCOMPARE(loadError->errorCase(), AccurateSpeechError::Case::modelCouldNotLoad);
        const auto error = errorOf(second);
        QVERIFY(error);
        QCOMPARE(error->errorCase(), AccurateSpeechError::Case::modelNotLoaded);
        QCOMPARE(error->description(), QStringLiteral("The accuracy model is still getting ready."));
        QVERIFY(!errorOf(engine.load(modelFile("for-tests-ggml-tiny.bin"))));
    }

    void destroyingTheEngineFinishesQueuedWork()
    {
        QList<QFuture<AccurateSpeechResult>> pending;
        {
            AccurateSpeechEngine engine;
            engine.load(modelFile("for-tests-ggml-tiny.bin"));
            pending.append(engine.transcribe(QList<float>(4000, 0.0f), 16000));
            pending.append(engine.transcribe(std::vector<float>(4000, 0.0f), 16000)); // moved in
        }
        for (const auto &future : pending) {
            QVERIFY(future.isFinished());
            QVERIFY(!errorOf(future));
            QCOMPARE(future.resultCount(), 1);
        }
    }

    // The language and the vocabulary prompt go to the model with each run;
    // the result names the language it used.
    void recognitionOptionsReachTheModel_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("used"); // "*": any detected code
        QTest::newRow("English by default") << modelFile("for-tests-ggml-tiny.bin") << QString() << QStringLiteral("en");
        QTest::newRow("German chosen") << modelFile("for-tests-ggml-tiny.bin") << QStringLiteral("de") << QStringLiteral("de");
        QTest::newRow("detected") << modelFile("for-tests-ggml-tiny.bin") << QStringLiteral("auto") << QStringLiteral("*");
        QTest::newRow("English-only model") << modelFile("for-tests-ggml-tiny.en.bin") << QStringLiteral("de") << QStringLiteral("en");
    }
    void recognitionOptionsReachTheModel()
    {
        QFETCH(QString, model);
        QFETCH(QString, language);
        QFETCH(QString, used);
        QStringList logged; // read only once the runs are over
        AccurateSpeechEngine engine(SpeechDevicePreference::cpu, [&logged](const QString &line) { logged << line; });
        QCOMPARE(engine.measurePrompt(QStringLiteral("Dictora")).result().limit, -1);
        QVERIFY(!errorOf(engine.load(model)));
        engine.setRecognitionOptions({language, QStringLiteral("Kubernetes, Aoife, Dictora")});
        QFuture<AccurateSpeechResult> run = engine.transcribe(QList<float>(AccurateSpeechEngine::kWarmUpSamples, 0.0f), 16000);
        QVERIFY(!errorOf(run));
        if (used == QLatin1String("*"))
            QVERIFY2(!run.result().language.isEmpty() && run.result().language != QLatin1String("auto"),
                qPrintable(run.result().language));
        else
            QCOMPARE(run.result().language, used);
        // The prompt reaches the model's parameters with the language it is run in.
        const QString told = used == QLatin1String("*") ? QStringLiteral("auto") : used;
        QVERIFY2(logged.contains(QStringLiteral("speech engine options language=%1 promptChars=26").arg(told)),
            qPrintable(logged.join(u'\n')));

        // The prompt is counted with the model's own tokenizer, against half its text context.
        const AccurateSpeechEngine::PromptFit fit = engine.measurePrompt(QStringLiteral("Kubernetes, Aoife, Dictora")).result();
        QCOMPARE(fit.limit, 224);
        QVERIFY(fit.tokens > 3 && fit.tokens < 20);
        QVERIFY(engine.measurePrompt(QStringLiteral("Kubernetes, ").repeated(150)).result().tokens > fit.limit);
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(SpeechEngineTest)
#include "tst_speech_engine.moc"
