#include "X11TestSupport.h"
#include "platform/Clipboard.h"
#include "platform/x11/X11ClipboardReadWatcher.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11WindowTracker.h"
#include "platform/x11/XConnection.h"
#include "text/paste/PasteService.h"

#include <QClipboard>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QWidget>
#include <QtTest>

#include <atomic>
#include <thread>

#include <unistd.h>

using namespace dictora;
using dictora::test::x11::ChildProgram;
using dictora::test::x11::FakeKeyboard;

namespace {
// The paste service on the real X11 backends, logging into its own file.
struct PasteRig {
    explicit PasteRig(const QString &logPath) : log(logPath) {}
    RuntimeLog log;
    x11::X11WindowTracker windows;
    x11::X11KeystrokeSender keys;
    PasteService service{log, windows, keys, std::make_unique<QtClipboard>(std::make_unique<x11::X11ClipboardReadWatcher>())};

    QStringList lines() const { return test::logMessages(QString::fromUtf8(test::readFile(log.filePath()))); }
    // The application's window made the target, as a dictation would capture it.
    bool captureTarget(qint64 pid, PasteTarget *target)
    {
        return QTest::qWaitFor([&] {
            const auto captured = service.captureTarget();
            if (captured && captured->application.processIdentifier == pid)
                *target = *captured;
            return captured && captured->application.processIdentifier == pid;
        }, 10000);
    }
};
} // namespace

// The paste path on a real X server: the window tracker, the keystroke sender,
// and pastes into xterm, a real application nobody here wrote, read back from
// it. Ctrl+V into an editor, and focus moved away meanwhile, are tst_e2e_paste's.
class TestX11Paste : public QObject {
    Q_OBJECT

    QTemporaryDir dir;
    FakeKeyboard keyboard;

    // Starts a terminal that sits idle and waits until the window manager
    // has made it the active window.
    static std::unique_ptr<ChildProgram> startTerminal(WindowTracker &tracker, const QStringList &extraArguments,
                                                       FrontmostWindow *window)
    {
        auto program = std::make_unique<ChildProgram>(
            QStringLiteral("xterm"), extraArguments + QStringList{"-e", "sleep", "600"});
        const auto front = [&] { return tracker.frontmostWindow().value_or(FrontmostWindow{}); };
        if (!program->waitStarted() || !QTest::qWaitFor([&] { return front().processId == program->pid(); }, 15000))
            return nullptr;
        *window = front();
        return program;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QVERIFY(keyboard.isOpen());
    }

    // Shift+Insert, with both selections holding the text.
    void landsInATerminal()
    {
        PasteRig rig(dir.filePath(QStringLiteral("runtime.log")));
        QSignalSpy delivered(&rig.service, &PasteService::delivered);
        QString why;
        test::x11::Terminal terminal(keyboard, dir.filePath(QStringLiteral("received.txt")));
        QVERIFY2(terminal.start(&why), qPrintable(why));
        PasteTarget target;
        QVERIFY(rig.captureTarget(terminal.pid(), &target));
        QVERIFY(!target.window.isNull());

        QGuiApplication::clipboard()->setText(QStringLiteral("what the user had copied before"));
        const QString text = QStringLiteral("hello from dictora");
        std::optional<qint64> milliseconds;
        rig.service.paste(text, target, [&](qint64 ms) { milliseconds = ms; });
        QTRY_VERIFY_WITH_TIMEOUT(milliseconds.has_value(), 10000);
        QVERIFY(*milliseconds >= 0);
        QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Clipboard), text);
        QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Selection), text);
        QVERIFY2(terminal.waitFor(text, 20000), qPrintable(QStringLiteral("xterm received \"%1\"; log:\n%2")
                                                              .arg(terminal.received(), rig.lines().join(u'\n'))));
        QTRY_COMPARE_WITH_TIMEOUT(delivered.count(), 1, 10000);

        const QStringList lines = rig.lines();
        // In the order a reader of the log relies on.
        const QString expectedLines[] = {QStringLiteral("paste begin target=%1 chars=%2").arg(target.application.name).arg(text.size()),
            QStringLiteral("pasteboard transcript installed"), QStringLiteral("paste keystroke sent keystroke=shift+insert"),
            QStringLiteral("command-v posted to pid=%1").arg(terminal.pid()), QStringLiteral("paste delivered to target")};
        qsizetype at = 0;
        for (const QString &expected : expectedLines) {
            while (at < lines.size() && !lines.at(at).startsWith(expected))
                ++at;
            QVERIFY2(at < lines.size(), qPrintable(expected + QStringLiteral(" missing or out of order:\n") + lines.join(u'\n')));
        }
        QVERIFY(lines.filter(QStringLiteral("reactivated")).isEmpty()); // still focused: nothing to bring back
    }

    void goneTargetNeverFails()
    {
        PasteRig rig(dir.filePath(QStringLiteral("gone.log")));
        PasteTarget target;
        {
            QString why;
            test::x11::Terminal terminal(keyboard, dir.filePath(QStringLiteral("gone.txt")));
            QVERIFY2(terminal.start(&why), qPrintable(why));
            QVERIFY(rig.captureTarget(terminal.pid(), &target));
        }
        QWidget ours;
        ours.show();
        QVERIFY(QTest::qWaitForWindowExposed(&ours));
        QVERIFY(test::x11::activateAndWait(rig.windows, WindowHandle{static_cast<quint64>(ours.winId())}, 10000));

        bool dispatched = false;
        rig.service.paste(QStringLiteral("nobody reads this"), target, [&](qint64) { dispatched = true; });
        QVERIFY(!dispatched); // the re-activation is waited for on timers, not in the call
        QTRY_VERIFY_WITH_TIMEOUT(dispatched, 5000);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("nobody reads this"));
        const QStringList lines = rig.lines();
        QVERIFY2(lines.contains(QStringLiteral("paste target reactivated ok=false")), qPrintable(lines.join(u'\n')));
        QVERIFY(lines.contains(QStringLiteral("command-v posted to pid=%1").arg(target.application.processIdentifier)));
    }

    void reportsARealApplication_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("names"); // class, instance, application
        QTest::newRow("xterm, named by its Debian desktop entry") << QStringList{} << QStringList{"XTerm", "xterm", "XTerm"};
        QTest::newRow("no entry: the class") << QStringList{"-class", "NoEntryAnywhere", "-name", "odd"}
                                             << QStringList{"NoEntryAnywhere", "odd", "NoEntryAnywhere"};
    }

    void reportsARealApplication()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, names);
        if (arguments.isEmpty() && !QFile::exists(QStringLiteral("/usr/share/applications/debian-xterm.desktop")))
            DICTORA_RIG_MISSING("xterm's desktop entry is not installed");

        x11::X11WindowTracker tracker;
        FrontmostWindow window;
        auto terminal = startTerminal(tracker, arguments, &window);
        QVERIFY2(terminal, "xterm never became the active window");
        QCOMPARE(window.processId, terminal->pid());
        QCOMPARE((QStringList{window.windowClass, window.instanceName, window.applicationName}), names);
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
        QVERIFY(test::x11::activateAndWait(tracker, WindowHandle{static_cast<quint64>(widget.winId())}, 10000));

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
        key.isEmpty() ? keyboard.setLocks(true) : keyboard.press(code);
        const bool held = sender.anyKeyHeld();
        key.isEmpty() ? keyboard.setLocks(false) : keyboard.release(code);
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

int main(int argc, char **argv) { return dictora::test::x11::testMain<TestX11Paste>(argc, argv, {"xterm", "l3afpad"}); }

#include "tst_x11_paste.moc"
