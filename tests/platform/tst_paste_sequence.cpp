#include "platform/Clipboard.h"
#include "platform/FocusAtPasteWindowTracker.h"
#include "platform/KeystrokeSender.h"
#include "platform/WindowTracker.h"
#include "support/TestSupport.h"
#include "text/paste/PasteService.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace dictora;

Q_DECLARE_METATYPE(dictora::PasteKeystroke)

namespace {

// A window manager that takes a while to activate a window (or never does)
// and a user who takes a while to let go of the keys: the two waits of the
// sequence, with their timing under the test's control.
struct SlowDesktop : WindowTracker, KeystrokeSender {
    WindowHandle active{1};
    int activationPolls = 0; // isActive() calls after a request until it is active; -1: never
    int keyPolls = 0;        // anyKeyHeld() calls that still report a key; -1: held forever
    bool sendWorks = true;
    bool vOnEveryLayout = true;
    int requests = 0;
    QStringList sent;

    std::optional<FrontmostWindow> frontmost;

    std::optional<FrontmostWindow> frontmostWindow() override { return frontmost; }
    bool isActive(WindowHandle window) override
    {
        if (requests > 0 && activationPolls >= 0 && window != active && activationPolls-- == 0)
            active = window;
        return window == active;
    }
    void requestActivation(WindowHandle) override { ++requests; }
    bool anyKeyHeld() override { return keyPolls < 0 || keyPolls-- > 0; }
    bool pastesWithVOnEveryLayout() const override { return vOnEveryLayout; }
    bool send(PasteKeystroke keystroke) override
    {
        sent << keystrokeName(keystroke);
        return sendWorks;
    }
    QString failureReason() const override { return sendWorks ? QString() : QStringLiteral("no XTEST"); }
};

// A desktop and a runtime log for one paste service.
struct Rig {
    QTemporaryDir dir;
    RuntimeLog log{dir.filePath(QStringLiteral("runtime.log"))};
    SlowDesktop desktop;
    QStringList messages() const { return test::logMessages(QString::fromUtf8(test::readFile(log.filePath()))); }
};

PasteTarget target(quint64 window, const QString &windowClass = QStringLiteral("Mousepad"))
{
    return PasteTarget{TargetApplication{QStringLiteral("Editor"), windowClass, 321}, WindowHandle{window}};
}

} // namespace

class PasteSequenceTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void waitsOnTimersNotInTheCall_data()
    {
        QTest::addColumn<quint64>("window");
        QTest::addColumn<int>("activationPolls");
        QTest::addColumn<int>("keyPolls");
        QTest::addColumn<bool>("sendWorks");
        QTest::addColumn<bool>("vOnEveryLayout"); // else Ctrl+V depends on the active layout group
        QTest::addColumn<QStringList>("expected"); // log lines after "paste begin"
        QTest::addColumn<int>("atLeastMs");        // the bound that had to pass first

        const QString installed = QStringLiteral("pasteboard transcript installed");
        const QString sent = QStringLiteral("paste keystroke sent keystroke=ctrl+v");
        const QString posted = QStringLiteral("command-v posted to pid=321");
        QTest::newRow("still focused, keys up") << quint64(1) << 0 << 0 << true << true
                                                << QStringList{installed, sent, posted} << 0;
        QTest::newRow("layout-dependent V: Shift+Insert") << quint64(1) << 0 << 0 << true << false
            << QStringList{installed, QStringLiteral("paste keystroke sent keystroke=shift+insert"), posted} << 0;
        QTest::newRow("focus moved, comes back")
            << quint64(7) << 20 << 0 << true << true
            << QStringList{QStringLiteral("paste target reactivated ok=true"), installed, sent, posted} << 0;
        QTest::newRow("focus never comes back")
            << quint64(7) << -1 << 0 << true << true
            << QStringList{QStringLiteral("paste target reactivated ok=false"), installed, sent, posted} << 1000;
        QTest::newRow("user lets go of the keys") << quint64(1) << 0 << 30 << true << true
                                                  << QStringList{installed, sent, posted} << 0;
        QTest::newRow("a key stays down")
            << quint64(1) << 0 << -1 << true << true
            << QStringList{QStringLiteral("paste keys still held; sending anyway"), installed, sent, posted} << 2000;
        QTest::newRow("no window to go back to") << quint64(0) << -1 << 0 << true << true
                                                 << QStringList{installed, sent, posted} << 0;
        QTest::newRow("keystroke refused")
            << quint64(1) << 0 << 0 << false << true
            << QStringList{installed, QStringLiteral("paste keystroke failed keystroke=ctrl+v error=no XTEST"), posted}
            << 0;
    }

    void waitsOnTimersNotInTheCall()
    {
        QFETCH(quint64, window);
        QFETCH(int, activationPolls);
        QFETCH(int, keyPolls);
        QFETCH(bool, sendWorks);
        QFETCH(bool, vOnEveryLayout);
        QFETCH(QStringList, expected);
        QFETCH(int, atLeastMs);

        Rig rig;
        SlowDesktop &desktop = rig.desktop;
        desktop.activationPolls = activationPolls;
        desktop.keyPolls = keyPolls;
        desktop.sendWorks = sendWorks;
        desktop.vOnEveryLayout = vOnEveryLayout;
        PasteService service(rig.log, desktop, desktop, std::make_unique<QtClipboard>(nullptr));

        std::optional<qint64> dispatched;
        service.paste(QStringLiteral("hello"), target(window), [&](qint64 ms) { dispatched = ms; });
        const bool waits = activationPolls != 0 && window != 1 && window != 0;
        QCOMPARE(dispatched.has_value(), !waits && keyPolls == 0); // a wait runs on timers, never in the call

        QTRY_VERIFY_WITH_TIMEOUT(dispatched.has_value(), 10000);
        QVERIFY(*dispatched >= atLeastMs);
        QCOMPARE(desktop.sent, QStringList{vOnEveryLayout ? QStringLiteral("ctrl+v") : QStringLiteral("shift+insert")});
        QCOMPARE(desktop.requests, waits ? 1 : 0);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("hello"));
        QStringList lines = rig.messages();
        QCOMPARE(lines.takeFirst(), QStringLiteral("paste begin target=Editor chars=5"));
        QCOMPARE(lines, expected);
    }

    // Desktops that name no window, or only part of it: the dictation still
    // has a target and is pasted, with no activation and no invented name.
    void targetsTheDesktopCannotFullyName_data()
    {
        QTest::addColumn<bool>("focusAtPaste"); // the real tracker for such desktops, else `window`
        QTest::addColumn<FrontmostWindow>("window");
        QTest::addColumn<std::optional<TargetApplication>>("expected"); // none: no target, nothing pasted
        QTest::addColumn<QString>("keystroke");

        QTest::newRow("focus at paste time") << true << FrontmostWindow{}
                                             << std::optional(TargetApplication{"Unknown", std::nullopt, 0})
                                             << "shift+insert"; // an editor or a terminal: both paste it
        QTest::newRow("terminal named by app id, no handle")
            << false << FrontmostWindow{"foot", "foot", {}, 0, {}}
            << std::optional(TargetApplication{"foot", QStringLiteral("foot"), 0}) << "ctrl+shift+v";
        QTest::newRow("our own window") << false
                                        << FrontmostWindow{"Dictora", "dictora", {}, qint32(::getpid()), {}}
                                        << std::optional<TargetApplication>() << QString();
    }

    void targetsTheDesktopCannotFullyName()
    {
        QFETCH(bool, focusAtPaste);
        QFETCH(FrontmostWindow, window);
        QFETCH(std::optional<TargetApplication>, expected);
        QFETCH(QString, keystroke);

        Rig rig;
        SlowDesktop &desktop = rig.desktop;
        desktop.frontmost = window;
        FocusAtPasteWindowTracker focused;
        WindowTracker &tracker = focusAtPaste ? static_cast<WindowTracker &>(focused) : desktop;
        PasteService service(rig.log, tracker, desktop, nullptr);

        const std::optional<PasteTarget> target = service.captureTarget();
        QCOMPARE(target.has_value(), expected.has_value());
        if (!target)
            return;
        QCOMPARE(target->application, *expected);
        QVERIFY(target->window.isNull());
        bool pasted = false;
        service.paste(QStringLiteral("hello"), *target, [&](qint64) { pasted = true; });
        QTRY_VERIFY_WITH_TIMEOUT(pasted, 5000);
        QCOMPARE(desktop.sent, QStringList{keystroke});
        QCOMPARE(desktop.requests, 0);
        QVERIFY(rig.messages().filter(QStringLiteral("reactivated")).isEmpty());
    }

    void pastesAskedForMeanwhileRunInOrder()
    {
        Rig rig;
        rig.desktop.keyPolls = 10;
        PasteService service(rig.log, rig.desktop, rig.desktop, nullptr);
        QStringList done;
        service.paste(QStringLiteral("first"), target(1), [&](qint64) { done << QStringLiteral("first"); });
        service.paste(QStringLiteral("second"), target(1, QStringLiteral("XTerm")),
            [&](qint64) { done << QStringLiteral("second"); });
        QTRY_COMPARE_WITH_TIMEOUT(done.size(), 2, 10000);
        QCOMPARE(done, (QStringList{QStringLiteral("first"), QStringLiteral("second")}));
        QCOMPARE(rig.desktop.sent, (QStringList{QStringLiteral("ctrl+v"), QStringLiteral("shift+insert")}));
        QCOMPARE(rig.messages().filter(QStringLiteral("paste begin")).size(), 2);
    }

    void goingAwayMidSequenceCallsNothing()
    {
        Rig rig;
        rig.desktop.keyPolls = -1;
        bool called = false;
        {
            PasteService service(rig.log, rig.desktop, rig.desktop, nullptr);
            service.paste(QStringLiteral("late"), target(1), [&](qint64) { called = true; });
            QTest::qWait(50);
        }
        QTest::qWait(50);
        QVERIFY(!called);
        QVERIFY(rig.desktop.sent.isEmpty());
    }

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

QTEST_MAIN(PasteSequenceTest)
#include "tst_paste_sequence.moc"
