#include "E2eSupport.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;

// A dictation that began with no other application focused has nowhere to
// go: it is journaled as failed, nothing is pasted, and the program is ready
// for the next press. `dictora paste-last` then puts it where the user wants.
class TestE2eNoTarget : public E2eCase {
    Q_OBJECT

    // Minimises whatever window of ours has the focus until none has.
    bool unfocusEverything(QString *why)
    {
        QDeadlineTimer deadline(20000);
        while (quint64 active = activeWindow()) {
            if (deadline.hasExpired()) {
                *why = QStringLiteral("window 0x%1 keeps the focus").arg(active, 0, 16);
                return false;
            }
            if (windowPid(active) == run->pid())
                QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("windowminimize"), QString::number(active)});
            QTest::qWait(100);
        }
        return true;
    }

private Q_SLOTS:
    void cleanup() { endCase(); }

    void failsWithoutATarget_data()
    {
        QTest::addColumn<bool>("ownWindowFocused");
        QTest::newRow("own window focused") << true;
        QTest::newRow("no window focused") << false;
    }

    void failsWithoutATarget()
    {
        QFETCH(bool, ownWindowFocused);

        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), QStringLiteral("hello there"));
        QVERIFY2(run->start(scriptedBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        QString output;
        QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("paste-last")}, &output), 1);
        QVERIFY2(output.contains(QStringLiteral("There is no dictation yet.")), qPrintable(output));

        // A second start shows the running program's window.
        QCOMPARE(run->runVerb(scriptedBinary(), {}, &output), 0);
        QTRY_COMPARE_WITH_TIMEOUT(windowPid(activeWindow()), run->pid(), 20000);
        if (!ownWindowFocused)
            QVERIFY2(unfocusEverything(&why), qPrintable(why));

        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(finishDictation(1, 1.5, &why), qPrintable(why));
        QVERIFY2(run->waitForRecords(1, 10000, &why), qPrintable(why));

        const QList<QJsonObject> records = run->records();
        QCOMPARE(records.size(), 1);
        const QJsonObject record = records.first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("failed"));
        QCOMPARE(record.value("error").toString(),
            QStringLiteral("No external target application was focused when recording began."));
        QVERIFY(!record.contains("targetApplication") || record.value("targetApplication").isNull());
        QCOMPARE(record.value("transcript").toString(), QStringLiteral("Hello there"));
        QCOMPARE(record.value("pasteDispatchDurationMilliseconds").toInteger(-1), 0);

        const QStringList messages = run->messages();
        QVERIFY2(linesInOrder(messages,
                     {QStringLiteral("recording started session=%1 target=none").arg(record.value("id").toString()),
                         QStringLiteral("stop key accepted; finalizing speech"),
                         QStringLiteral("journal append complete"), QStringLiteral("overlay returned to idle"),
                         QStringLiteral("recording completed outcome=failed chars=11")},
                     &why),
            qPrintable(why));
        QVERIFY2(!messages.filter(QStringLiteral("paste begin")).size(), qPrintable(messages.join(u'\n')));

        // Pasted again where the focus is now, the way a dictation is pasted.
        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));
        QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("paste-last")}, &output), 0);
        QString received;
        QVERIFY2(editor.readBack(QStringLiteral("Hello there"), &received), qPrintable(received));
        QVERIFY2(linesInOrder(run->messages(),
                     {QStringLiteral("paste again id=%1 chars=11").arg(record.value("id").toString()),
                         QStringLiteral("paste begin target=L3afpad chars=11"),
                         QStringLiteral("command-v posted to pid=%1").arg(editor.pid())},
                     &why),
            qPrintable(why));
        QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("copy-last")}), 0);
        QTRY_COMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("Hello there"));
        QCOMPARE(run->records().size(), 1); // nothing new is journaled

        // Idle again: the next dictation starts.
        QVERIFY2(startDictation(2, &why), qPrintable(why));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eNoTarget)
#include "tst_e2e_no_target.moc"
