#include "FakePortal.h"
#include "platform/portal/DesktopBinding.h"
#include "platform/portal/DesktopPermissionProbe.h"
#include "platform/portal/UinputKeystrokeSender.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QtTest>

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
    QProcess p;
    p.start("gsettings", {"get", schema, key});
    p.waitForFinished(5000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}
bool gsettingsSet(const QString &schema, const QString &key, const QString &value)
{
    return QProcess::execute("gsettings", {"set", schema, key, value}) == 0;
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

    void desktopNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("desktop");
        // Plain GNOME, KDE and sway: the real sessions of tst_real_portal, tst_desktop_window_tracker, tst_e2e_wayland.
        QTest::newRow("ubuntu's gnome") << "ubuntu:GNOME" << int(Desktop::gnome);
        QTest::newRow("hyprland") << "Hyprland" << int(Desktop::hyprland);
        QTest::newRow("river") << "river" << int(Desktop::river);
        QTest::newRow("unknown first, known second") << "Foo:sway" << int(Desktop::sway);
        QTest::newRow("empty") << "" << int(Desktop::other);
    }

    void desktopNames()
    {
        QFETCH(QString, name);
        QFETCH(int, desktop);
        QCOMPARE(int(desktopFromName(name)), desktop);
    }

    // What the user is told to add to the compositor's configuration; on
    // GNOME, with no file to edit, the accelerator of its keybinding.
    void bindingLines_data()
    {
        QTest::addColumn<int>("desktop");
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<bool>("hold");
        QTest::addColumn<QStringList>("lines");
        const int sway = int(Desktop::sway), hypr = int(Desktop::hyprland), river = int(Desktop::river), gnome = int(Desktop::gnome);
        QTest::newRow("sway toggle") << sway << qint64(50) << 0 << false << QStringList{"bindsym grave exec dictora toggle"};
        QTest::newRow("sway hold") << sway << qint64(50) << 0 << true
                                   << QStringList{"bindsym grave exec dictora press", "bindsym --release grave exec dictora release"};
        QTest::newRow("sway ctrl+alt+k") << sway << qint64(40) << int(kCtrlAlt) << false
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
        QTest::newRow("gnome backtick") << gnome << qint64(50) << 0 << false << QStringList{"grave"};
        QTest::newRow("gnome ctrl+alt+k") << gnome << qint64(40) << int(kCtrlAlt) << false << QStringList{"<Control><Alt>k"};
        QTest::newRow("gnome shift+super+f5") << gnome << qint64(96)
                                              << int(GlobalShortcutModifiers::shift | GlobalShortcutModifiers::command) << false
                                              << QStringList{"<Shift><Super>F5"};
    }

    void bindingLines()
    {
        QFETCH(int, desktop);
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(bool, hold);
        QFETCH(QStringList, lines);
        const GlobalShortcut s = shortcut(keyCode, std::uint8_t(modifiers), "x");
        QStringList got = portal::bindingLines(Desktop(desktop), s, hold);
        if (Desktop(desktop) == Desktop::gnome) {
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
