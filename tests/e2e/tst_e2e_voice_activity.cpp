#include "E2eSupport.h"

#include <QDir>
#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;

// The scripted program, whose recogniser answers every recording with words,
// and the real voice-activity model: noise played into the microphone pastes
// nothing and is kept as a silent (empty) record; speech still gets its words.
class TestE2eVoiceActivity : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void noiseIsNeverRecognised()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        // The product's detector contract names exactly this file.
        QVERIFY(QFile::copy(testModelPath(QStringLiteral("for-tests-silero-v6.2.0-ggml.bin")),
            QDir(run->dataDirectory()).filePath(QStringLiteral("Models/ggml-silero-v6.2.0.bin"))));
        QVERIFY2(startScripted(QStringLiteral("invented words"), &why), qPrintable(why));
        QVERIFY2(run->waitForLines(QStringLiteral("voice activity model ready path="), 1, 30000, &why), qPrintable(why));
        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));

        // White noise: loud enough for the meter, no speech in it.
        const QString noise = scratch->filePath(QStringLiteral("noise.wav"));
        QCOMPARE(QProcess::execute(QStringLiteral("sox"),
                     {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("16000"), QStringLiteral("-b"),
                         QStringLiteral("16"), QStringLiteral("-c"), QStringLiteral("1"), noise,
                         QStringLiteral("synth"), QStringLiteral("3"), QStringLiteral("whitenoise"),
                         QStringLiteral("vol"), QStringLiteral("0.1")}),
            0);
        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(playIntoMicrophone(noise, &why), qPrintable(why));
        tapBeforeProgramReacts();
        QVERIFY2(run->waitForLines(QStringLiteral("recording completed outcome=empty"), 1, 60000, &why), qPrintable(why));
        QVERIFY2(linesInOrder(run->messages(), {QStringLiteral("no speech detected; nothing recognised recordedMs=")}, &why),
            qPrintable(why));

        QVERIFY2(startDictation(2, &why), qPrintable(why));
        QVERIFY2(finishDictation(2, 4.0, &why), qPrintable(why));
        QString pasted;
        QVERIFY2(editor.readBack(QStringLiteral("Invented words"), &pasted), qPrintable(pasted)); // as the formatter writes it
        const QList<QJsonObject> records = run->records(&why);
        QCOMPARE(records.size(), 2);
        QCOMPARE(records[0].value("outcome").toString(), QStringLiteral("empty"));
        QCOMPARE(records[1].value("outcome").toString(), QStringLiteral("pasted"));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eVoiceActivity)
#include "tst_e2e_voice_activity.moc"
