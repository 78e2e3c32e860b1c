#include "FakePortal.h"
#include "platform/portal/DesktopBinding.h"
#include "platform/portal/DesktopPermissionProbe.h"
#include "platform/portal/UinputKeystrokeSender.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QtTest>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <unistd.h>

using namespace dictora;
using namespace dictora::portal;

namespace {
GlobalShortcut shortcut(std::int64_t keyCode, std::uint8_t modifiers, const QString &label)
{
    return GlobalShortcut{keyCode, GlobalShortcutModifiers{modifiers}, label};
}
constexpr std::uint8_t kCtrlAlt = GlobalShortcutModifiers::control | GlobalShortcutModifiers::option;

QString gsettingsGet(const QString &schema, const QString &key)
{
    return dictora::test::runProgram(QStringLiteral("gsettings"), {"get", schema, key}).out.trimmed();
}
bool gsettingsSet(const QString &schema, const QString &key, const QString &value)
{
    return dictora::test::runProgram(QStringLiteral("gsettings"), {"set", schema, key, value}).exitCode == 0;
}
// The event node the kernel made for our virtual keyboard, from the input device list.
QString eventNodeOf(const QString &deviceName)
{
    QFile devices(QStringLiteral("/proc/bus/input/devices"));
    if (!devices.open(QIODevice::ReadOnly))
        return {};
    bool ours = false;
    for (const QByteArray &line : devices.readAll().split('\n')) {
        if (line.startsWith("N: Name="))
            ours = line.contains(deviceName.toUtf8());
        if (ours && line.startsWith("H: Handlers=")) {
            for (const QByteArray &handler : line.mid(12).split(' '))
                if (handler.startsWith("event"))
                    return QStringLiteral("/dev/input/") + QString::fromLatin1(handler);
        }
    }
    return {};
}
} // namespace

class TestDesktopBinding : public QObject {
    Q_OBJECT

    dictora::test::IsolatedHome m_home; // gsettings' key file lands in its config folder

private Q_SLOTS:
    void initTestCase()
    {
        // A file instead of dconf: no session daemon here, and the user's settings stay untouched.
        qputenv("GSETTINGS_BACKEND", "keyfile");
    }

    // What the user is told to add to the compositor's configuration, by $XDG_CURRENT_DESKTOP; on
    // GNOME, with no file to edit, the accelerator of its keybinding. Plain GNOME, KDE and sway
    // sessions are tst_real_portal's, tst_desktop_window_tracker's and tst_e2e_wayland's.
    void bindingLines_data()
    {
        QTest::addColumn<QString>("desktop");
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<bool>("hold");
        QTest::addColumn<QStringList>("lines");
        const QString sway = "sway", hypr = "Hyprland", river = "river", gnome = "GNOME";
        QTest::newRow("sway toggle") << sway << qint64(50) << 0 << false << QStringList{"bindsym grave exec dictora toggle"};
        QTest::newRow("sway hold") << sway << qint64(50) << 0 << true
                                   << QStringList{"bindsym grave exec dictora press", "bindsym --release grave exec dictora release"};
        QTest::newRow("sway second, ctrl+alt+k") << "Foo:sway" << qint64(40) << int(kCtrlAlt) << false
                                                 << QStringList{"bindsym Ctrl+Mod1+k exec dictora toggle"};
        QTest::newRow("hyprland toggle") << hypr << qint64(50) << 0 << false << QStringList{"bind = , grave, exec, dictora toggle"};
        QTest::newRow("hyprland hold ctrl+alt+k") << hypr << qint64(40) << int(kCtrlAlt) << true
                                                  << QStringList{"bind = CTRL ALT, k, exec, dictora press",
                                                         "bindr = CTRL ALT, k, exec, dictora release"};
        QTest::newRow("river toggle") << river << qint64(50) << 0 << false
                                      << QStringList{"riverctl map normal None grave spawn 'dictora toggle'"};
        QTest::newRow("river hold super+f5") << river << qint64(96) << int(GlobalShortcutModifiers::command) << true
                                             << QStringList{"riverctl map normal Super F5 spawn 'dictora press'",
                                                    "riverctl map -release normal Super F5 spawn 'dictora release'"};
        QTest::newRow("ubuntu's gnome backtick") << "ubuntu:GNOME" << qint64(50) << 0 << false << QStringList{"grave"};
        QTest::newRow("gnome ctrl+alt+k") << gnome << qint64(40) << int(kCtrlAlt) << false << QStringList{"<Control><Alt>k"};
        QTest::newRow("gnome shift+super+f5") << gnome << qint64(96)
                                              << int(GlobalShortcutModifiers::shift | GlobalShortcutModifiers::command) << false
                                              << QStringList{"<Shift><Super>F5"};
        QTest::newRow("unknown desktop: nothing to add") << "Foo" << qint64(50) << 0 << false << QStringList{};
    }

    void bindingLines()
    {
        QFETCH(QString, desktop);
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(bool, hold);
        QFETCH(QStringList, lines);
        const GlobalShortcut s = shortcut(keyCode, std::uint8_t(modifiers), "x");
        QStringList got = portal::bindingLines(desktopFromName(desktop), s, hold);
        if (desktopFromName(desktop) == Desktop::gnome) {
            QVERIFY(got.isEmpty());
            got = {gnomeAccelerator(s)};
        }
        QCOMPARE(got, lines);
    }

    // Through the real settings schema: the user's own custom shortcuts stay,
    // ours is added once, found again, and removed cleanly.
    void gnomeKeybindingKeepsTheUsersOwn()
    {
        if (!GnomeKeybinding::isAvailable())
            QSKIP("GNOME's media-keys settings schema is not installed (gnome-settings-daemon-common)");
        const QString list = GnomeKeybinding::kListSchema;
        const QString userEntry = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/custom0/";
        QVERIFY(gsettingsSet(list, "custom-keybindings", QStringLiteral("['%1']").arg(userEntry)));
        QVERIFY(gsettingsSet(QString(GnomeKeybinding::kEntrySchema) + ":" + userEntry, "command", "'gnome-terminal'"));

        SessionMechanisms mechanisms;
        mechanisms.desktop = Desktop::gnome;
        mechanisms.shortcut = SessionMechanisms::Shortcut::gnomeKeybinding;
        mechanisms.keystroke = SessionMechanisms::Keystroke::compositorKeyboard;
        DesktopPermissionProbe probe(mechanisms);
        const PermissionCheck before = probe.accessibility(nullptr);
        QVERIFY(!before.authorized);
        QCOMPARE(before.action, QString(PermissionAction::gnomeKeybinding));
        QVERIFY(GnomeKeybinding::installedAccelerator().isEmpty());

        QString error;
        QVERIFY2(GnomeKeybinding::install(shortcut(40, kCtrlAlt, "K"), &error), qPrintable(error));
        QVERIFY2(GnomeKeybinding::install(shortcut(40, kCtrlAlt, "K"), &error), qPrintable(error));
        QCOMPARE(gsettingsGet(list, "custom-keybindings"),
            QStringLiteral("['%1', '%2']").arg(userEntry, GnomeKeybinding::kEntryPath));
        QCOMPARE(GnomeKeybinding::installedAccelerator(), QStringLiteral("<Control><Alt>k"));
        QVERIFY(probe.accessibility(nullptr).authorized);

        QVERIFY(GnomeKeybinding::remove(&error));
        QCOMPARE(gsettingsGet(list, "custom-keybindings"), QStringLiteral("['%1']").arg(userEntry));
        QVERIFY(GnomeKeybinding::installedAccelerator().isEmpty());
    }

    void uinputAccessProblems()
    {
        QVERIFY(UinputKeystrokeSender::accessProblem(m_home.path() + "/no-uinput").contains("not loaded"));
        UinputKeystrokeSender absent(m_home.path() + "/no-uinput");
        QVERIFY(!absent.isOpen());
        QVERIFY(!absent.send(PasteKeystroke::controlV));
        QVERIFY(!absent.failureReason().isEmpty());
        // A plain file is writable but no uinput device: creating the keyboard fails with a reason.
        QVERIFY(dictora::test::writeFile(m_home.path() + "/not-a-device", {}));
        UinputKeystrokeSender plain(m_home.path() + "/not-a-device");
        QVERIFY(!plain.isOpen());
        QVERIFY(plain.failureReason().contains("could not be created"));
    }

    // The kernel's view of what the virtual keyboard typed: the same events a
    // compositor reads through libinput.
    void typesThePasteChord_data()
    {
        QTest::addColumn<int>("keystroke");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ctrl+v") << int(PasteKeystroke::controlV) << "29+ 47+ 47- 29-";
        QTest::newRow("ctrl+shift+v") << int(PasteKeystroke::controlShiftV) << "29+ 42+ 47+ 47- 42- 29-";
    }

    void typesThePasteChord()
    {
        QFETCH(int, keystroke);
        QFETCH(QString, expected);
        if (const QString why = UinputKeystrokeSender::accessProblem(); !why.isEmpty())
            QSKIP(qPrintable(why));
        UinputKeystrokeSender sender;
        QVERIFY2(sender.isOpen(), qPrintable(sender.failureReason()));
        QString node;
        QVERIFY(QTest::qWaitFor([&] { return !(node = eventNodeOf(UinputKeystrokeSender::kDeviceName)).isEmpty(); }, 5000));
        QVERIFY(QTest::qWaitFor([&] { return QFile::exists(node); }, 5000));
        const int fd = ::open(QFile::encodeName(node).constData(), O_RDONLY | O_NONBLOCK);
        QVERIFY2(fd >= 0, "the event node cannot be read");
        QVERIFY(sender.send(PasteKeystroke(keystroke)));
        QStringList keys;
        pollfd p{fd, POLLIN, 0};
        while (keys.size() < expected.count(' ') + 1 && ::poll(&p, 1, 2000) > 0) {
            input_event event{};
            while (::read(fd, &event, sizeof event) == sizeof event) {
                if (event.type == EV_KEY)
                    keys << QString::number(event.code) + (event.value ? "+" : "-");
            }
        }
        ::close(fd);
        QCOMPARE(keys.join(' '), expected);
    }

    // What a KDE/GNOME session needs before typing works.
    void remoteDesktopConsent_data()
    {
        using Typing = SessionMechanisms::Typing;
        QTest::addColumn<QStringList>("portalOptions");
        QTest::addColumn<Typing>("consent");
        QTest::addColumn<bool>("authorized");
        QTest::addColumn<QString>("action");
        QTest::newRow("not answered yet") << QStringList{} << Typing::unknown << false << QString(PermissionAction::portalConsent);
        QTest::newRow("refused, asks again") << QStringList{} << Typing::refused << false << QString(PermissionAction::portalConsent);
        QTest::newRow("allowed") << QStringList{} << Typing::allowed << true << QString();
        QTest::newRow("no RemoteDesktop, no uinput")
            << QStringList{"--remote-version", "0"} << Typing::unknown << false << QString(PermissionAction::uinputRule);
    }

    void remoteDesktopConsent()
    {
        QFETCH(QStringList, portalOptions);
        QFETCH(SessionMechanisms::Typing, consent);
        QFETCH(bool, authorized);
        QFETCH(QString, action);
        if (QFile::exists(UinputKeystrokeSender::kDevicePath) && action == PermissionAction::uinputRule)
            QSKIP("this machine has /dev/uinput");
        if (const QString why = dictora::test::FakePortal::unavailableReason(); !why.isEmpty())
            QSKIP(qPrintable(why));
        dictora::test::FakePortal portal;
        QVERIFY2(portal.start(portalOptions), qPrintable(portal.errorText()));

        SessionMechanisms mechanisms;
        mechanisms.desktop = Desktop::kde;
        mechanisms.keystroke = SessionMechanisms::Keystroke::remoteDesktop;
        mechanisms.typingConsent = [consent] { return consent; };
        mechanisms.busAddress = portal.busAddress();
        DesktopPermissionProbe probe(mechanisms);
        // Off the GUI thread, as the readiness monitor runs it.
        PermissionCheck check;
        QThread *worker = QThread::create([&] { check = probe.accessibility(nullptr); });
        worker->start();
        QVERIFY(worker->wait(20000));
        delete worker;

        QCOMPARE(check.authorized, authorized);
        QCOMPARE(check.action, action);
        QCOMPARE(check.reason.isEmpty(), authorized);
        QVERIFY(!check.reason.contains("X11"));
    }
};

QTEST_GUILESS_MAIN(TestDesktopBinding)
#include "tst_desktop_binding.moc"
