#include "E2eSupport.h"

#include <QClipboard>
#include <QDir>
#include <QGuiApplication>
#include <QMimeData>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;

// The whole paste path with only the recogniser's words scripted: the text is
// formatted, snippet-expanded and lands in the editor that had the focus when
// the dictation began. It is driven by the shortcut or from a shell ("dictora
// toggle", or "press" and "release" with hold to talk on).
class TestE2ePaste : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void textLandsInTheEditor_data()
    {
        QTest::addColumn<QString>("recognised");
        QTest::addColumn<QString>("drive"); // "key", "key held" while the text is ready, "toggle", "press"
        QTest::addColumn<bool>("moveFocus");
        QTest::addColumn<QString>("expected");

        // The formatting and snippet rules are the formatter's and controller's tables; each way runs once here.
        const QString raw = QStringLiteral("  um, please send the invoice to my address  ");
        const QString formatted = QStringLiteral("Please send the invoice to 12 Harbour Road, Leith");
        QTest::newRow("shortcut") << raw << "key" << false << formatted;
        QTest::newRow("focus moved to a terminal") << raw << "key" << true << formatted;
        QTest::newRow("non-ASCII, shortcut still held when the text is ready")
            << QString::fromUtf8("uh the café in Zürich is near my address") << "key held" << false
            << QString::fromUtf8("The café in Zürich is near 12 Harbour Road, Leith");
        QTest::newRow("dictora toggle twice") << raw << "toggle" << false << formatted;
        QTest::newRow("dictora press and release, hold to talk") << raw << "press" << false << formatted;
    }

    void textLandsInTheEditor()
    {
        QFETCH(QString, recognised);
        QFETCH(QString, drive);
        QFETCH(bool, moveFocus);
        QFETCH(QString, expected);

        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        // A chosen microphone that is unplugged: the default is heard, and the indicator says so.
        run->writeSettings({{QStringLiteral("audio.microphone.source"), QStringLiteral("unplugged_usb")},
            {QStringLiteral("keyboard.shortcut.holdToTalk"), drive == QLatin1String("press")}});
        run->writeSnippets({{QStringLiteral("my address"), QStringLiteral("12 Harbour Road, Leith")},
            {QStringLiteral("never said"), QStringLiteral("must not appear")}});
        QVERIFY2(startScripted(recognised, &why), qPrintable(why));

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));
        const bool byVerb = drive == QLatin1String("toggle") || drive == QLatin1String("press");
        if (byVerb) {
            QVERIFY2(verb(drive, &why), qPrintable(why));
            QVERIFY2(run->waitForLines(QStringLiteral("recording started session="), 1, 30000, &why), qPrintable(why));
        } else {
            QVERIFY2(startDictation(1, &why), qPrintable(why));
        }

        std::unique_ptr<Terminal> terminal;
        if (moveFocus) {
            terminal = std::make_unique<Terminal>(keyboard, scratch->filePath(QStringLiteral("terminal.txt")));
            QVERIFY2(terminal->start(&why), qPrintable(why));
            QCOMPARE(windowPid(activeWindow()), terminal->pid());
        }

        if (drive == QLatin1String("key")) {
            QVERIFY2(finishDictation(1, 1.5, &why), qPrintable(why));
        } else {
            const QString clip = speechClip(scratch->path(), 1.5, &why);
            QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
            if (byVerb) {
                QVERIFY2(verb(drive == QLatin1String("press") ? QStringLiteral("release") : drive, &why), qPrintable(why));
            } else {
                const int key = keyboard.keycode("grave");
                keyboard.press(key);
                const bool accepted = run->waitForLines(QStringLiteral("stop key accepted"), 1, 30000, &why);
                QTest::qWait(300);
                keyboard.release(key);
                QVERIFY2(accepted, qPrintable(why));
            }
            QVERIFY2(run->waitForLines(QStringLiteral("recording completed outcome="), 1, 60000, &why), qPrintable(why));
        }
        QString received;
        QVERIFY2(editor.readBack(expected, &received),
            qPrintable(QStringLiteral("the editor holds \"%1\"; log:\n%2").arg(received, run->logText())));
        if (terminal)
            QCOMPARE(terminal->received(), QString());

        const QList<QJsonObject> records = run->records();
        QCOMPARE(records.size(), 1);
        const QJsonObject record = records.first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("pasted"));
        QCOMPARE(record.value("transcript").toString(), expected);
        QCOMPARE(record.value("targetApplication")["name"].toString(), QStringLiteral("L3afpad"));
        QCOMPARE(record.value("targetApplication")["processIdentifier"].toInteger(), editor.pid());
        QVERIFY(!record.contains("error"));
        QCOMPARE(record.value("earsDurationMilliseconds").toInteger(-1), 0);
        QVERIFY(record.value("pasteDispatchDurationMilliseconds").toInteger(-1) >= 0);

        const QStringList messages = run->messages();
        QVERIFY2(linesInOrder(messages,
                     {QStringLiteral("recording started session=%1 target=L3afpad").arg(record.value("id").toString()),
                         QStringLiteral("stop key accepted; finalizing speech"),
                         QStringLiteral("accurate local finalization returned rawChars=%1 formattedChars=%2")
                             .arg(recognised.size())
                             .arg(expected.size()),
                         QStringLiteral("paste begin target=L3afpad chars=%1").arg(expected.size()),
                         QStringLiteral("command-v posted to pid=%1").arg(editor.pid()),
                         QStringLiteral("journal append complete"), QStringLiteral("overlay returned to idle"),
                         QStringLiteral("recording completed outcome=pasted chars=%1").arg(expected.size())},
                     &why),
            qPrintable(why));
        QCOMPARE(messages.contains(QStringLiteral("paste target reactivated ok=true")), moveFocus);
        QVERIFY2(linesInOrder(messages,
                     {QStringLiteral("microphone chosen source=unplugged_usb is missing; recording from the default"),
                         QStringLiteral("microphone notice text=The chosen microphone is not connected; recording from the default input.")},
                     &why),
            qPrintable(why));

        // Again, into whatever has the focus now, the same way; nothing new is journaled.
        if (drive == QLatin1String("key") && !moveFocus) {
            QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("paste-last")}), 0);
            QVERIFY2(editor.readBack(expected + expected, &received), qPrintable(received));
            QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("copy-last")}), 0);
            QTRY_COMPARE(QGuiApplication::clipboard()->text(), expected);
            QCOMPARE(run->records().size(), 1);
        }
    }

    // A verb with no program to take it; then, with "keep my clipboard" on,
    // what was copied before (every format) is back after the paste.
    void copiedContentComesBack()
    {
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->writeSettings({{QStringLiteral("paste.restoreClipboard"), true}});
        QString refusal;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("toggle")}, &refusal), 1);
        QVERIFY2(refusal.contains(QStringLiteral("Dictora is not running")), qPrintable(refusal));
        QVERIFY2(startScripted(QStringLiteral("hello again"), &why), qPrintable(why));
        QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("paste-last")}, &refusal), 1);
        QVERIFY2(refusal.contains(QStringLiteral("There is no dictation yet.")), qPrintable(refusal));

        const QList<QPair<QString, QByteArray>> copied{{QStringLiteral("text/plain"), "copied before"},
            {QStringLiteral("text/html"), "<b>copied</b> before"},
            {QStringLiteral("application/x-dictora-test"), QByteArray("\x00\x01\xff binary", 10)},
            // More than one X request holds: it comes and goes in pieces (INCR).
            {QStringLiteral("image/x-dictora-big"), QByteArray(3 * 1024 * 1024, 'x')}};
        auto *data = new QMimeData;
        for (const auto &[format, bytes] : copied)
            data->setData(format, bytes);
        QGuiApplication::clipboard()->setMimeData(data);

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));
        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(finishDictation(1, 1.5, &why), qPrintable(why));
        QString received;
        QVERIFY2(editor.readBack(QStringLiteral("Hello again"), &received), qPrintable(received));
        QVERIFY2(run->waitForLines(QStringLiteral("clipboard restored formats="), 1, 10000, &why), qPrintable(why));
        const QMimeData *now = QGuiApplication::clipboard()->mimeData();
        QVERIFY(now);
        for (const auto &[format, bytes] : copied)
            QCOMPARE(now->data(format), bytes);
        QVERIFY2(linesInOrder(run->messages(),
                     {QStringLiteral("clipboard saved formats="), QStringLiteral("paste delivered to target"),
                         QStringLiteral("clipboard restored formats=")},
                     &why),
            qPrintable(why));
    }

    // The real voice-activity model before a recogniser that always answers:
    // noise pastes nothing and is kept as an empty record; speech still pastes.
    void noiseIsNeverRecognised()
    {
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
        const QStringList synth = QStringLiteral("-n -r 16000 -b 16 -c 1").split(u' ') + QStringList{noise}
            + QStringLiteral("synth 3 whitenoise vol 0.1").split(u' ');
        QVERIFY2(runTool(QStringLiteral("sox"), synth, &why), qPrintable(why));
        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(playIntoMicrophone(noise, &why), qPrintable(why));
        tapBeforeProgramReacts();
        QVERIFY2(run->waitForLines(QStringLiteral("recording completed outcome=empty"), 1, 60000, &why), qPrintable(why));
        QVERIFY2(run->countLines(QStringLiteral("no speech detected; nothing recognised recordedMs=")) == 1, qPrintable(run->logText()));

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

DICTORA_E2E_TEST_MAIN(TestE2ePaste)
#include "tst_e2e_paste.moc"
