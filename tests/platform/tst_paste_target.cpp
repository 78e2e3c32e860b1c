#include "text/paste/PasteTarget.h"

#include <QtTest>

using namespace dictora;

Q_DECLARE_METATYPE(dictora::PasteKeystroke)

class TestPasteTarget : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void keystrokeByWindowClass_data()
    {
        QTest::addColumn<QString>("windowClass");
        QTest::addColumn<PasteKeystroke>("expected");

        QTest::newRow("text editor") << "Mousepad" << PasteKeystroke::controlV;
        // The desktop names nothing (GNOME): a key editors and terminals share.
        QTest::newRow("no class") << "" << PasteKeystroke::shiftInsert;
        QTest::newRow("xterm") << "XTerm" << PasteKeystroke::shiftInsert;
        QTest::newRow("urxvt") << "URxvt" << PasteKeystroke::shiftInsert;
        QTest::newRow("gnome terminal") << "Gnome-terminal" << PasteKeystroke::controlShiftV;
        QTest::newRow("kitty") << "kitty" << PasteKeystroke::controlShiftV;
        QTest::newRow("wezterm") << "org.wezfurlong.wezterm" << PasteKeystroke::controlShiftV;
        QTest::newRow("st") << "st-256color" << PasteKeystroke::controlShiftV;
        // Names that merely contain a terminal's name are other programs.
        QTest::newRow("not a terminal: stellarium") << "Stellarium" << PasteKeystroke::controlV;
        QTest::newRow("not a terminal: xterminal-notes") << "xterm-notes" << PasteKeystroke::controlV;
    }

    void keystrokeByWindowClass()
    {
        QFETCH(QString, windowClass);
        QFETCH(PasteKeystroke, expected);
        PasteTarget target;
        if (!windowClass.isEmpty())
            target.application.bundleIdentifier = windowClass;
        QCOMPARE(pasteKeystrokeFor(target), expected);
    }

    // "foot --app-id=work": the class says nothing, the program does.
    void terminalUnderItsOwnAppId()
    {
        QTemporaryDir dir;
        QVERIFY(QFile::copy("/bin/sleep", dir.filePath("foot")));
        QProcess foot;
        foot.start(dir.filePath("foot"), {"30"});
        QVERIFY(foot.waitForStarted());
        PasteTarget target;
        target.application.bundleIdentifier = "work";
        target.application.processIdentifier = int(foot.processId());
        QCOMPARE(pasteKeystrokeFor(target), PasteKeystroke::controlShiftV);
        foot.kill();
        foot.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestPasteTarget)
#include "tst_paste_target.moc"
