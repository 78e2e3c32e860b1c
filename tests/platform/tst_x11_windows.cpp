#include "ActivateWindow.h"
#include "X11TestSupport.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11WindowTracker.h"
#include "platform/x11/XConnection.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QFile>
#include <QWidget>
#include <QtTest>

#include <atomic>
#include <thread>

#include <unistd.h>

using namespace dictora;
using dictora::test::x11::ChildProgram;
using dictora::test::x11::FakeKeyboard;

class TestX11Windows : public QObject {
    Q_OBJECT

private:
    FakeKeyboard keyboard;

    // Starts a terminal that sits idle and waits until the window manager
    // has made it the active window.
    static std::unique_ptr<ChildProgram> startTerminal(WindowTracker &tracker, const QStringList &extraArguments,
                                                       FrontmostWindow *window)
    {
        auto program = std::make_unique<ChildProgram>(
            QStringLiteral("xterm"), extraArguments + QStringList{"-e", "sleep", "600"});
        if (!program->waitStarted())
            return nullptr;
        const qint64 pid = program->pid();
        QDeadlineTimer deadline(15000);
        while (!deadline.hasExpired()) {
            if (auto front = tracker.frontmostWindow(); front && front->processId == pid) {
                *window = *front;
                return program;
            }
            QTest::qWait(20);
        }
        return nullptr;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("xterm")).isEmpty())
            DICTORA_RIG_MISSING("xterm is not installed (Debian package xterm)");
    }

    void reportsARealApplication_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("windowClass");
        QTest::addColumn<QString>("instanceName");
        QTest::addColumn<QString>("applicationName");

        QTest::newRow("xterm, named by its Debian desktop entry")
            << QStringList{} << "XTerm" << "xterm" << "XTerm";
        QTest::newRow("no entry: the class")
            << QStringList{"-class", "NoEntryAnywhere", "-name", "odd"} << "NoEntryAnywhere" << "odd"
            << "NoEntryAnywhere";
    }

    void reportsARealApplication()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, windowClass);
        QFETCH(QString, instanceName);
        QFETCH(QString, applicationName);
        if (applicationName == QLatin1String("XTerm")
            && !QFile::exists(QStringLiteral("/usr/share/applications/debian-xterm.desktop")))
            DICTORA_RIG_MISSING("xterm's desktop entry is not installed");

        x11::X11WindowTracker tracker;
        FrontmostWindow window;
        auto terminal = startTerminal(tracker, arguments, &window);
        QVERIFY2(terminal, "xterm never became the active window");
        QCOMPARE(window.processId, terminal->pid());
        QCOMPARE(window.windowClass, windowClass);
        QCOMPARE(window.instanceName, instanceName);
        QCOMPARE(window.applicationName, applicationName);
        QVERIFY(!window.window.isNull());
        QVERIFY(tracker.isActive(window.window));
        QCOMPARE(tracker.frontmostOtherApplication().value_or(FrontmostWindow{}), window);
    }

    void ownWindowIsNeverATarget()
    {
        x11::X11WindowTracker tracker;
        QWidget widget;
        widget.setWindowTitle(QStringLiteral("dictora test window"));
        widget.resize(200, 100);
        widget.show();
        QVERIFY(QTest::qWaitForWindowExposed(&widget));
        QVERIFY(test::activateAndWait(tracker, WindowHandle{static_cast<quint64>(widget.winId())}, 10000));

        const auto front = tracker.frontmostWindow();
        QVERIFY(front.has_value());
        QCOMPARE(front->processId, static_cast<qint32>(::getpid()));
        QVERIFY(!tracker.frontmostOtherApplication().has_value());
    }

    // A key held down is seen, whichever it is; locks switched on are not held keys.
    void heldKeyIsSeen_data()
    {
        QTest::addColumn<QString>("key"); // empty: Caps Lock and Num Lock on instead
        QTest::newRow("right shift") << "Shift_R";
        QTest::newRow("right control") << "Control_R";
        QTest::newRow("super") << "Super_L";
        QTest::newRow("plain letter") << "a";
        QTest::newRow("the shortcut key") << "grave";
        QTest::newRow("locks on") << "";
    }

    void heldKeyIsSeen()
    {
        QFETCH(QString, key);
        x11::X11KeystrokeSender sender;
        QVERIFY(sender.failureReason().isEmpty());
        const int code = keyboard.keycode(key.toLatin1().constData());
        QVERIFY(code != 0 || key.isEmpty());
        QVERIFY(!sender.anyKeyHeld());
        key.isEmpty() ? (keyboard.setCapsLock(true), keyboard.setNumLock(true)) : keyboard.press(code);
        const bool held = sender.anyKeyHeld();
        key.isEmpty() ? (keyboard.setCapsLock(false), keyboard.setNumLock(false)) : keyboard.release(code);
        QCOMPARE(held, !key.isEmpty());
        QVERIFY(!sender.anyKeyHeld());
    }

    // Threads trapping errors on their own connections at the same time:
    // each trap sees exactly its connection's errors, and none reaches
    // Xlib's default handler (which would end the process).
    void xErrorsStayWithTheirConnection()
    {
        std::atomic<int> wrong{0};
        const auto provoke = [&wrong] {
            x11::XConnection connection;
            for (int i = 0; i < 300 && connection.isOpen(); ++i) {
                x11::XErrorTrap trap(connection.display());
                dictora::test::x11::unmapMissingWindow(connection.display());
                if (trap.sync() != 3) // BadWindow
                    ++wrong;
                x11::XErrorTrap quiet(connection.display());
                if (quiet.sync() != 0)
                    ++wrong;
            }
        };
        std::thread a(provoke), b(provoke), c(provoke);
        a.join();
        b.join();
        c.join();
        QCOMPARE(wrong.load(), 0);
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return dictora::test::rigMissing("needs an X display: run under tests/support/x11/with-x");
    QApplication app(argc, argv);
    TestX11Windows tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_x11_windows.moc"
