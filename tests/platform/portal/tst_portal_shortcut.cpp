#include "FakePortal.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/PortalTrigger.h"

#include <QJsonObject>
#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using dictora::portal::PortalShortcutBackend;
using dictora::test::FakePortal;
using dictora::test::waitFor;
using Stage = PortalShortcutBackend::Stage;

// On a fake portal, the turns of the conversation a real desktop (tests/e2e/lab) is slow to take.
namespace {
GlobalShortcut shortcut(std::int64_t keyCode, std::uint8_t modifiers, const QString &label)
{
    return GlobalShortcut{keyCode, GlobalShortcutModifiers{modifiers}, label};
}
const GlobalShortcut kCtrlAltK = shortcut(40, GlobalShortcutModifiers::control | GlobalShortcutModifiers::option, "K");
const GlobalShortcut kBacktick = shortcut(50, 0, "`"); // the default, built here: no static order to rely on

// The fake portal and a backend on its bus.
struct Rig {
    FakePortal portal;
    std::unique_ptr<PortalShortcutBackend> backend;

    bool start(const QStringList &options = {}, PortalShortcutBackend::Triggers triggers = {})
    {
        if (!portal.start(options))
            return false;
        backend = std::make_unique<PortalShortcutBackend>(portal.client(), std::move(triggers));
        return true;
    }
    // Installs now and on every change, as the readiness monitor does.
    void follow(const GlobalShortcut &wanted)
    {
        PortalShortcutBackend *b = backend.get();
        QObject::connect(b, &ShortcutBackend::installationChanged, b, [b, wanted] { b->install(wanted); });
        b->install(wanted);
    }
    bool bound(const GlobalShortcut &wanted)
    {
        return waitFor([&] { return backend->verifyInstalled(wanted) && backend->stage() == Stage::bound; });
    }
    qsizetype calls(const char *method) { return portal.calls(QStringLiteral("GlobalShortcuts.") + QLatin1String(method)).size(); }
};
} // namespace

class TestPortalShortcut : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The US name alone, one per symbol the key types on the user's layouts, or (GNOME) the key's code.
    void triggers_data()
    {
        QTest::addColumn<GlobalShortcut>("shortcut");
        QTest::addColumn<QString>("layouts"); // empty: the US name; "keycode": the key's code
        QTest::addColumn<QStringList>("triggers");
        const int ctrl = GlobalShortcutModifiers::control, alt = GlobalShortcutModifiers::option,
                  shift = GlobalShortcutModifiers::shift, super = GlobalShortcutModifiers::command;
        QTest::newRow("backtick alone") << kBacktick << "" << QStringList{"grave"};
        QTest::newRow("ctrl+alt+k") << kCtrlAltK << "" << QStringList{"CTRL+ALT+k"};
        QTest::newRow("modifier order is fixed") << shortcut(40, super | shift | alt | ctrl, "K") << "" << QStringList{"CTRL+ALT+SHIFT+LOGO+k"};
        QTest::newRow("super+f5") << shortcut(96, super, "F5") << "" << QStringList{"LOGO+F5"};
        QTest::newRow("ctrl+space") << shortcut(49, ctrl, "Space") << "" << QStringList{"CTRL+space"};
        QTest::newRow("digit") << shortcut(18, ctrl, "1") << "" << QStringList{"CTRL+1"};
        QTest::newRow("unknown key") << shortcut(999, ctrl, "x") << "" << QStringList{};
        QTest::newRow("keycode: key below Escape") << kBacktick << "keycode" << QStringList{"0x31"};
        QTest::newRow("keycode: with modifiers") << kCtrlAltK << "keycode" << QStringList{"CTRL+ALT+0x2d"};
        QTest::newRow("us") << kBacktick << "us" << QStringList{"grave"};
        QTest::newRow("german") << kBacktick << "de" << QStringList{"dead_circumflex"};
        QTest::newRow("russian, and the US name") << kBacktick << "ru" << QStringList{"Cyrillic_io", "grave"};
        QTest::newRow("russian and us") << kBacktick << "ru,us" << QStringList{"Cyrillic_io", "grave"};
        QTest::newRow("us twice") << kBacktick << "us,us" << QStringList{"grave"};
        QTest::newRow("unknown layout: the US name") << kBacktick << "no-such-layout" << QStringList{"grave"};
    }
    void triggers()
    {
        QFETCH(GlobalShortcut, shortcut);
        QFETCH(QString, layouts);
        QFETCH(QStringList, triggers);
        if (layouts.isEmpty() || layouts == QLatin1String("keycode")) {
            const auto one = layouts.isEmpty() ? portal::preferredTrigger(shortcut) : portal::keycodeTrigger(shortcut);
            QCOMPARE(one ? QStringList{*one} : QStringList(), triggers);
            return;
        }
        if (!QFile::exists("/usr/share/X11/xkb/symbols/ru"))
            QSKIP("xkb-data is not installed");
        QList<portal::LayoutName> names;
        for (const QString &layout : layouts.split(','))
            names.append({layout, {}});
        QCOMPARE(portal::preferredTriggers(shortcut, names), triggers);
    }

    // Bound by keycode, the key's own name is shown; a key held down (the desktop repeats) is one press.
    void bindsThenReportsPressAndRelease()
    {
        Rig rig;
        QVERIFY2(rig.start({}, [](const GlobalShortcut &s) { return std::optional(QStringList{*portal::keycodeTrigger(s)}); }),
            qPrintable(rig.portal.errorText()));
        QVERIFY(!rig.backend->install(kCtrlAltK));
        QVERIFY(rig.backend->failureReason().contains("Waiting"));
        QVERIFY(rig.bound(kCtrlAltK));
        QVERIFY(!rig.backend->verifyInstalled(kBacktick));
        QCOMPARE(rig.backend->triggerDescription(), QStringLiteral("Ctrl+Alt+K"));

        const QString id = rig.portal.calls("GlobalShortcuts.BindShortcuts")[0].toArray()[1].toArray()[0].toArray()[0].toString();
        QSignalSpy pressed(rig.backend.get(), &ShortcutBackend::pressed);
        QSignalSpy released(rig.backend.get(), &ShortcutBackend::released);
        rig.portal.press(id);
        QVERIFY(waitFor([&] { return pressed.count() == 1; }));
        rig.portal.press(id);
        rig.portal.release(id);
        QVERIFY(waitFor([&] { return released.count() == 1; }));
        QCOMPARE(pressed.count(), 1);
    }

    void declinedDialogIsReportedAndNotRepeated()
    {
        Rig rig;
        QVERIFY2(rig.start({"--bind-answer", "cancel"}), qPrintable(rig.portal.errorText()));
        QSignalSpy changed(rig.backend.get(), &ShortcutBackend::installationChanged);
        QVERIFY(!rig.backend->install(kBacktick));
        QVERIFY(waitFor([&] { return changed.count() == 1; }));
        QCOMPARE(rig.backend->stage(), Stage::refused);
        QVERIFY(rig.backend->failureReason().contains("declined"));
        QVERIFY(!rig.backend->verifyInstalled(kBacktick));

        // The controller retries every second; that must not reopen the dialog.
        QVERIFY(!rig.backend->install(kBacktick));
        QTest::qWait(100);
        QCOMPARE(rig.calls("BindShortcuts"), 1);

        // Choosing a shortcut again asks again, and now the user agrees.
        rig.portal.setAnswers("accept", "accept");
        QVERIFY(!rig.backend->install(kCtrlAltK));
        QVERIFY(rig.bound(kCtrlAltK));
        QCOMPARE(rig.calls("BindShortcuts"), 2);
    }

    // Each desktop's answers, installed as often as the readiness monitor would; a second run finds the first's binding.
    void desktopAnswers_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<bool>("secondRun");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<int>("binds");
        QTest::newRow("a listed shortcut needs no dialog") << QStringList{} << true << true << 1;
        QTest::newRow("gnome: a known shortcut is answered as an error with its list")
            << QStringList{"--bind-answer", "gnome"} << true << true << 2;
        QTest::newRow("gnome refuses an unregistered app: the id goes first")
            << QStringList{"--require-app-id"} << false << true << 1;
        QTest::newRow("bind error: backs off") << QStringList{"--bind-answer", "error"} << false << false << 2;
        QTest::newRow("no GlobalShortcuts") << QStringList{"--shortcuts-version", "0"} << false << false << 0;
    }
    void desktopAnswers()
    {
        QFETCH(QStringList, options);
        QFETCH(bool, secondRun);
        QFETCH(bool, installed);
        QFETCH(int, binds);
        FakePortal portal;
        QVERIFY2(portal.start(options), qPrintable(portal.errorText()));
        const auto run = [&] {
            PortalShortcutBackend backend(portal.client());
            connect(&backend, &ShortcutBackend::installationChanged, &backend, [&] { backend.install(kBacktick); });
            backend.install(kBacktick);
            QTest::qWait(1600); // the first pause after a failure is a second
            return backend.verifyInstalled(kBacktick);
        };
        if (secondRun)
            run();
        QCOMPARE(run(), installed);
        QCOMPARE(portal.calls("GlobalShortcuts.BindShortcuts").size(), binds);
    }

    // Asked for again: the desktop's own dialog for a known shortcut (version 2), else a fresh bind.
    void askAgain_data()
    {
        QTest::addColumn<QString>("version");
        QTest::addColumn<int>("binds");
        QTest::addColumn<int>("configures");
        QTest::newRow("version 1: binds again") << "1" << 2 << 0;
        QTest::newRow("version 2: the desktop's own dialog") << "2" << 1 << 1;
    }
    void askAgain()
    {
        QFETCH(QString, version);
        QFETCH(int, binds);
        QFETCH(int, configures);
        Rig rig;
        QVERIFY2(rig.start({"--shortcuts-version", version}), qPrintable(rig.portal.errorText()));
        rig.follow(kBacktick);
        QVERIFY(rig.bound(kBacktick));
        rig.backend->askAgain();
        QVERIFY(waitFor([&] { return rig.calls("BindShortcuts") == binds && rig.calls("ConfigureShortcuts") == configures; }));
        QVERIFY(rig.bound(kBacktick));
    }

    // Changed in the desktop's settings, then the session ended by it: its keys do nothing,
    // one fresh session opens after the pause, and uninstalling closes that.
    void desktopChangesAndSessionEnd()
    {
        Rig rig;
        QVERIFY2(rig.start(), qPrintable(rig.portal.errorText()));
        rig.backend->install(kBacktick);
        QVERIFY(rig.bound(kBacktick));

        rig.portal.changeTrigger("Meta+D");
        QVERIFY(waitFor([&] { return rig.backend->triggerDescription() == QLatin1String("Meta+D"); }));
        QVERIFY(rig.backend->verifyInstalled(kBacktick));

        rig.portal.closeSessions();
        QVERIFY(waitFor([&] { return !rig.backend->verifyInstalled(kBacktick); }));
        QVERIFY(!rig.backend->failureReason().isEmpty());
        QSignalSpy pressed(rig.backend.get(), &ShortcutBackend::pressed);
        rig.portal.press();
        QTest::qWait(100);
        QCOMPARE(pressed.count(), 0);

        QVERIFY(QTest::qWaitFor([&] { return rig.backend->install(kBacktick); }, 5000));
        QCOMPARE(rig.calls("CreateSession"), 2);
        rig.backend->uninstall();
        rig.backend->uninstall();
        QVERIFY(!rig.backend->verifyInstalled(kBacktick));
        QVERIFY(waitFor([&] { return rig.portal.calls("Session.Close").size() == 1; }));
    }

    // A layout added later: a fresh session binds the full set, the key working meanwhile; an
    // unchanged list binds nothing. GNOME lists nothing to a new session and answers the bind.
    void layoutAddedLater_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::newRow("lists") << "accept";
        QTest::newRow("gnome") << "gnome";
    }
    void layoutAddedLater()
    {
        QFETCH(QString, answer);
        if (!QFile::exists("/usr/share/X11/xkb/symbols/de"))
            QSKIP("xkb-data is not installed");
        std::optional<QList<portal::LayoutName>> layouts; // not read yet
        Rig rig;
        QVERIFY2(rig.start({"--bind-answer", answer}, [&](const GlobalShortcut &s) -> std::optional<QStringList> {
            return layouts ? std::optional(portal::preferredTriggers(s, *layouts)) : std::nullopt;
        }), qPrintable(rig.portal.errorText()));
        rig.follow(kBacktick);
        QTest::qWait(200);
        QCOMPARE(rig.calls("CreateSession"), 0); // nothing bound before the layouts are known
        layouts = QList<portal::LayoutName>{{"us", {}}};
        rig.backend->triggersChanged();
        QVERIFY(rig.bound(kBacktick));

        layouts->append(portal::LayoutName{"de", {}});
        rig.backend->triggersChanged();
        QVERIFY(rig.backend->verifyInstalled(kBacktick));
        QVERIFY(waitFor([&] { return rig.calls("BindShortcuts") == 2; }));
        QVERIFY(rig.bound(kBacktick));
        const QJsonArray entries = rig.portal.calls("GlobalShortcuts.BindShortcuts")[1].toArray()[1].toArray();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(rig.portal.calls("Session.Close").size(), 1);
        QSignalSpy pressed(rig.backend.get(), &ShortcutBackend::pressed);
        rig.portal.press("dictate-dead_circumflex");
        QVERIFY(waitFor([&] { return pressed.count() == 1; }));

        rig.backend->triggersChanged();
        QTest::qWait(300);
        QCOMPARE(rig.calls("CreateSession"), 2);
    }
};

int main(int argc, char **argv) { return dictora::test::fakePortalMain<TestPortalShortcut>(argc, argv); }

#include "tst_portal_shortcut.moc"
