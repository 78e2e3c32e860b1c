#include "E2eSupport.h"

#include <cmath>
#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;

// The real program with a model that loads and recognises nothing: a spoken
// dictation into a real editor goes through capture, recognition and the
// journal and comes back as an empty record.
class TestE2eEmptyDictation : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void dictationWithTheEmptyWeightModel()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));

        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(finishDictation(1, 3.0, &why), qPrintable(why));
        QVERIFY2(run->waitForRecords(1, 10000, &why), qPrintable(why));

        const QStringList messages = run->messages();
        QVERIFY2(linesInOrder(messages,
                     {QStringLiteral("recording started session="), QStringLiteral("pcm meter active"),
                         QStringLiteral("stop key accepted; finalizing speech"),
                         QStringLiteral("accurate local finalization returned rawChars=0 formattedChars=0"),
                         QStringLiteral("journal append begin"), QStringLiteral("journal append complete"),
                         QStringLiteral("overlay returned to idle"),
                         QStringLiteral("recording completed outcome=empty chars=0 finalizeMs=")},
                     &why),
            qPrintable(why));
        // The speech reached the recogniser: this was not the silence shortcut.
        QVERIFY2(!messages.contains(QStringLiteral("accurate local transcription skipped for silence")),
            qPrintable(messages.join(u'\n')));

        const QList<QJsonObject> records = run->records(&why);
        QCOMPARE(records.size(), 1);
        const QJsonObject record = records.first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("empty"));
        QCOMPARE(record.value("transcript").toString(), QString());
        QVERIFY(!record.contains("error"));
        QCOMPARE(record.value("transcriptionEngine").toString(), QStringLiteral("exact-local-large-v3-turbo-q5_0"));

        // The log names the session that became the record, and its target.
        const QString started = messages.filter(QStringLiteral("recording started session=")).first();
        QCOMPARE(started,
            QStringLiteral("recording started session=%1 target=%2")
                .arg(record.value("id").toString(), record.value("targetApplication")["name"].toString()));
        QCOMPARE(record.value("targetApplication")["processIdentifier"].toInteger(), editor.pid());
        QCOMPARE(record.value("targetApplication")["name"].toString(), QStringLiteral("L3afpad"));

        for (const char *key : {"recordingDurationMilliseconds", "finalizationDurationMilliseconds",
                 "pasteDispatchDurationMilliseconds", "totalDurationMilliseconds", "earsDurationMilliseconds"}) {
            QVERIFY2(record.value(key).isDouble() && record.value(key).toInteger(-1) >= 0, key);
        }
        QCOMPARE(record.value("pasteDispatchDurationMilliseconds").toInteger(), 0);
        // The recording spans the speech that was played while it ran.
        QVERIFY(record.value("recordingDurationMilliseconds").toInteger() >= 3000);
        QVERIFY(record.value("totalDurationMilliseconds").toInteger()
            >= record.value("recordingDurationMilliseconds").toInteger());
        QVERIFY(record.value("finalizationDurationMilliseconds").toInteger()
            >= record.value("earsDurationMilliseconds").toInteger());
        // Durations agree with the record's own instants (milliseconds since 1970).
        const auto at = [&](const char *key) { return record.value(key).toDouble(); };
        const auto agrees = [](double span, qint64 milliseconds) { return std::abs(span - double(milliseconds)) <= 1.0; };
        QVERIFY(at("recordingStartedAt") > 0);
        QVERIFY(agrees(at("recordingEndedAt") - at("recordingStartedAt"),
            record.value("recordingDurationMilliseconds").toInteger()));
        QVERIFY(agrees(at("savedAt") - at("recordingStartedAt"), record.value("totalDurationMilliseconds").toInteger()));

        // Nothing to paste again, and it says so.
        QString refusal;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("paste-last")}, &refusal), 1);
        QVERIFY2(refusal.contains(QStringLiteral("The last dictation heard no speech")), qPrintable(refusal));

        // Back to idle: the next press starts a new recording, and quitting
        // in the middle of it ends the program cleanly.
        QVERIFY2(startDictation(2, &why), qPrintable(why));
        QVERIFY2(run->stop(&why), qPrintable(why));
        QCOMPARE(run->messages().last(), QStringLiteral("app quit"));
        QCOMPARE(run->records().size(), 1);
        // It took its instance socket with it.
        QString output;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("toggle")}, &output), 1);
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eEmptyDictation)
#include "tst_e2e_empty_dictation.moc"
