#include "E2eSupport.h"

#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

#include <csignal>

using namespace dictora::test::e2e;

// The GUI thread keeps serving its event loop through a dictation while all it
// talks to is slow: the sound server stops for a second at the start and at
// the stop, and the paste target sits on another desktop. The program logs the
// longest stall of each dictation (DICTORA_MEASURE_GUI_STALLS).
class TestE2eGuiStall : public E2eCase {
    Q_OBJECT

private:
    // Taps the shortcut while the sound server is stopped for a second; true when
    // no `prefix` line came meanwhile (the program waited for the server).
    bool tapWhileSoundServerStalls(qint64 server, const QString &prefix, int seen)
    {
        ::kill(pid_t(server), SIGSTOP);
        pressShortcut(keyboard);
        QTest::qWait(1000);
        const bool waited = run->countLines(prefix) == seen;
        ::kill(pid_t(server), SIGCONT);
        return waited;
    }

private Q_SLOTS:
    void cleanup() { endCase(); }

    void noStallWhileServersAreSlow()
    {
        // The PulseAudio server the with-pulse wrapper started for this test.
        const qint64 server = dictora::test::readFile(qEnvironmentVariable("PULSE_RUNTIME_PATH") + "/pid").trimmed().toLongLong();
        if (server <= 0)
            QSKIP("the sound server's pid file is not where with-pulse puts it");

        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->setEnvironment(QStringLiteral("DICTORA_MEASURE_GUI_STALLS"), QStringLiteral("1"));
        QVERIFY2(startScripted(QStringLiteral("please call me back"), &why), qPrintable(why));

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));

        const QString started = QStringLiteral("recording started session=");
        QVERIFY(tapWhileSoundServerStalls(server, started, 0));
        QVERIFY2(run->waitForLines(started, 1, 30000, &why), qPrintable(why));
        QVERIFY(run->messages().filter(started).first().endsWith(QStringLiteral(" target=L3afpad")));

        // The editor goes to the second desktop; openbox switches there when the paste asks.
        QVERIFY2(runTool(QStringLiteral("xdotool"),
                     {QStringLiteral("set_desktop_for_window"), QString::number(editor.window()), QStringLiteral("1")}, &why),
            qPrintable(why));
        QTRY_VERIFY_WITH_TIMEOUT(activeWindow() != editor.window(), 10000);

        const QString clip = speechClip(scratch->path(), 1.5, &why);
        QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
        const QString completed = QStringLiteral("recording completed outcome=");
        tapWhileSoundServerStalls(server, completed, 0);
        QVERIFY2(run->waitForLines(completed, 1, 60000, &why), qPrintable(why));

        const QJsonObject record = run->records().first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("pasted"));
        const QStringList messages = run->messages();
        QVERIFY2(messages.contains(QStringLiteral("paste target reactivated ok=true")), qPrintable(run->logText()));
        QString received;
        QVERIFY2(editor.readBack(record.value("transcript").toString(), &received),
            qPrintable(QStringLiteral("the editor holds \"%1\"").arg(received)));

        const QString stallPrefix = QStringLiteral("gui thread longest stall ms=");
        QVERIFY2(run->waitForLines(stallPrefix, 1, 10000, &why), qPrintable(why));
        const qint64 stall = run->messages().filter(stallPrefix).first().mid(stallPrefix.size()).toLongLong();
        qInfo("longest GUI thread stall during the dictation: %lld ms", stall);
        QVERIFY2(stall <= 50, qPrintable(QStringLiteral("the GUI thread stalled for %1 ms").arg(stall)));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eGuiStall)
#include "tst_e2e_gui_stall.moc"
