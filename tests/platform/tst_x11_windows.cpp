#include "ActivateWindow.h"
#include "X11TestSupport.h"
#include "platform/PermissionProbe.h"
#include "platform/services/PlatformServices.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11WindowTracker.h"
#include "platform/x11/XConnection.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
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
    QTemporaryDir dataHome;
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
        QVERIFY(dataHome.isValid());
        const QString apps = dataHome.path() + QStringLiteral("/applications");
        QVERIFY(test::writeFile(apps + QStringLiteral("/dictora-probe.desktop"),
            "[Desktop Entry]\nType=Application\nName=Probe Writer\nStartupWMClass=DictoraProbe\n"));
        QVERIFY(test::writeFile(apps + QStringLiteral("/probe-by-file.desktop"),
            "[Desktop Entry]\nType=Application\nName=File Named Probe\n"));
        qputenv("XDG_DATA_HOME", dataHome.path().toLocal8Bit());
    }

    void reportsARealApplication_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("windowClass");
        QTest::addColumn<QString>("instanceName");
        QTest::addColumn<QString>("applicationName");

        QTest::newRow("xterm, named by its Debian desktop entry")
            << QStringList{} << "XTerm" << "xterm" << "XTerm";
        QTest::newRow("entry matched by StartupWMClass")
            << QStringList{"-class", "DictoraProbe"} << "DictoraProbe" << "xterm" << "Probe Writer";
        QTest::newRow("entry matched by file name")
            << QStringList{"-class", "probe-by-file"} << "probe-by-file" << "xterm" << "File Named Probe";
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

    void activatesAWindowThatLostFocus()
    {
        x11::X11WindowTracker tracker;
        FrontmostWindow first, second;
        auto one = startTerminal(tracker, {"-title", "first"}, &first);
        QVERIFY(one);
        auto two = startTerminal(tracker, {"-title", "second"}, &second);
        QVERIFY(two);
        QVERIFY(!tracker.isActive(first.window));

        QElapsedTimer call;
        call.start();
        tracker.requestActivation(first.window);
        QVERIFY(call.elapsed() < 1000); // asks, never waits for the window manager
        QTRY_VERIFY_WITH_TIMEOUT(tracker.isActive(first.window), 10000);
        QCOMPARE(tracker.frontmostWindow()->processId, one->pid());
        tracker.requestActivation(first.window); // already active
        QVERIFY(tracker.isActive(first.window));

        // On another desktop: the window manager switches there.
        QProcess move;
        move.start(QStringLiteral("xdotool"), {QStringLiteral("set_desktop_for_window"),
            QString::number(first.window.value), QStringLiteral("1")});
        QVERIFY(move.waitForFinished(10000) && move.exitCode() == 0);
        QTRY_VERIFY_WITH_TIMEOUT(!tracker.isActive(first.window), 10000);
        tracker.requestActivation(first.window);
        QTRY_VERIFY_WITH_TIMEOUT(tracker.isActive(first.window), 10000);

        // A window that has gone cannot come back, and asking for it is harmless.
        two.reset();
        tracker.requestActivation(second.window);
        tracker.requestActivation(WindowHandle{});
        QTest::qWait(300);
        QVERIFY(!tracker.isActive(second.window));
        QVERIFY(tracker.isActive(first.window));
    }

    void heldKeyIsSeen_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<bool>("counts");
        QTest::newRow("left shift") << "Shift_L" << true;
        QTest::newRow("right shift") << "Shift_R" << true;
        QTest::newRow("left control") << "Control_L" << true;
        QTest::newRow("right control") << "Control_R" << true;
        QTest::newRow("alt") << "Alt_L" << true;
        QTest::newRow("super") << "Super_L" << true;
        QTest::newRow("plain letter") << "a" << true;
        QTest::newRow("the shortcut key") << "grave" << true;
    }

    void heldKeyIsSeen()
    {
        QFETCH(QString, key);
        QFETCH(bool, counts);
        x11::X11KeystrokeSender sender;
        QVERIFY(sender.failureReason().isEmpty());
        const int code = keyboard.keycode(key.toLatin1().constData());
        QVERIFY(code != 0);
        QVERIFY(!sender.anyKeyHeld());
        keyboard.press(code);
        const bool held = sender.anyKeyHeld();
        keyboard.release(code);
        QCOMPARE(held, counts);
        QVERIFY(!sender.anyKeyHeld());
    }

    void lockStatesAreNotHeldKeys()
    {
        x11::X11KeystrokeSender sender;
        keyboard.setCapsLock(true);
        keyboard.setNumLock(true);
        const bool held = sender.anyKeyHeld();
        keyboard.setCapsLock(false);
        keyboard.setNumLock(false);
        QVERIFY(!held);
    }

    void permissionProbeOnAnEwmhDesktop()
    {
        const PermissionCheck check = Platform::createPermissionProbe()->accessibility(nullptr);
        QVERIFY2(check.authorized, qPrintable(check.reason));
        QVERIFY(check.reason.isEmpty());
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
