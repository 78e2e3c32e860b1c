#include "FakePortal.h"
#include "platform/portal/LayoutWatch.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/PortalTrigger.h"
#include "support/TestSupport.h"

#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>
#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using dictora::portal::PortalShortcutBackend;
using dictora::test::FakePortal;

namespace {
GlobalShortcut shortcut(std::int64_t keyCode, std::uint8_t modifiers, const QString &label)
{
    return GlobalShortcut{keyCode, GlobalShortcutModifiers{modifiers}, label};
}
const GlobalShortcut kCtrlAltK = shortcut(40, GlobalShortcutModifiers::control | GlobalShortcutModifiers::option, "K");
const GlobalShortcut kBacktick = shortcut(50, 0, "`"); // the default, built here: no static order to rely on

bool waitForAnswer(QSignalSpy &spy, int count = 1)
{
    return spy.count() >= count || QTest::qWaitFor([&] { return spy.count() >= count; }, 10000);
}
} // namespace

class TestPortalShortcut : public QObject {
    Q_OBJECT

    int m_connection = 0;
    QDBusConnection clientOf(FakePortal &portal) { return portal.connect(QStringLiteral("client-%1").arg(++m_connection)); }

private Q_SLOTS:
    void triggerSyntax_data()
    {
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("trigger");
        const int ctrl = GlobalShortcutModifiers::control, alt = GlobalShortcutModifiers::option,
                  shift = GlobalShortcutModifiers::shift, super = GlobalShortcutModifiers::command;
        QTest::newRow("backtick alone") << qint64(50) << 0 << "grave";
        QTest::newRow("ctrl+alt+k") << qint64(40) << (ctrl | alt) << "CTRL+ALT+k";
        QTest::newRow("modifier order is fixed") << qint64(40) << (super | shift | alt | ctrl) << "CTRL+ALT+SHIFT+LOGO+k";
        QTest::newRow("super+f5") << qint64(96) << super << "LOGO+F5";
        QTest::newRow("ctrl+space") << qint64(49) << ctrl << "CTRL+space";
        QTest::newRow("digit") << qint64(18) << ctrl << "CTRL+1";
        QTest::newRow("unknown key") << qint64(999) << ctrl << QString();
    }

    void triggerSyntax()
    {
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(QString, trigger);
        const auto got = portal::preferredTrigger(shortcut(keyCode, std::uint8_t(modifiers), "x"));
        QCOMPARE(got.value_or(QString()), trigger);
    }

    // The whole conversation: session, list, bind with the preferred
    // trigger, the desktop's answer, then key down and up.
    void bindsThenReportsPressAndRelease()
    {
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        QCOMPARE(backend.portalVersion(), 1u);
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);

        QVERIFY(!backend.install(kCtrlAltK)); // the desktop has not answered yet
        QVERIFY(backend.failureReason().contains("Waiting"));
        QVERIFY(waitForAnswer(changed));
        QVERIFY(backend.verifyInstalled(kCtrlAltK));
        QVERIFY(!backend.verifyInstalled(kBacktick));
        QVERIFY(backend.install(kCtrlAltK));
        QVERIFY(backend.failureReason().isEmpty());
        QCOMPARE(backend.triggerDescription(), QStringLiteral("Ctrl+Alt+k"));

        const QJsonArray binds = portal.calls("GlobalShortcuts.BindShortcuts");
        QCOMPARE(binds.size(), 1);
        const QJsonArray entry = binds[0].toArray()[1].toArray()[0].toArray();
        QCOMPARE(entry[0].toString(), QStringLiteral("dictate"));
        QCOMPARE(entry[1].toObject()["preferred_trigger"].toString(), QStringLiteral("CTRL+ALT+k"));
        QVERIFY(binds[0].toArray()[3].toObject()["handle_token"].toString().startsWith("dictora_"));

        QSignalSpy pressed(&backend, &ShortcutBackend::pressed);
        QSignalSpy released(&backend, &ShortcutBackend::released);
        portal.press();
        QVERIFY(waitForAnswer(pressed));
        portal.press(); // held: the desktop repeats, we do not
        portal.release();
        QVERIFY(waitForAnswer(released));
        QCOMPARE(pressed.count(), 1);
        QCOMPARE(released.count(), 1);
    }

    void declinedDialogIsReportedAndNotRepeated()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--bind-answer", "cancel"}), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);
        QVERIFY(!backend.install(kBacktick));
        QVERIFY(waitForAnswer(changed));
        QCOMPARE(backend.stage(), PortalShortcutBackend::Stage::refused);
        QVERIFY(backend.failureReason().contains("declined"));
        QVERIFY(!backend.verifyInstalled(kBacktick));

        // The controller retries every second; that must not reopen the dialog.
        QVERIFY(!backend.install(kBacktick));
        QTest::qWait(100);
        QCOMPARE(portal.calls("GlobalShortcuts.BindShortcuts").size(), 1);

        // Choosing a shortcut again asks again, and now the user agrees.
        portal.setAnswers("accept", "accept");
        QVERIFY(!backend.install(kCtrlAltK));
        QVERIFY(waitForAnswer(changed, 2));
        QVERIFY(backend.verifyInstalled(kCtrlAltK));
        QCOMPARE(portal.calls("GlobalShortcuts.BindShortcuts").size(), 2);
    }

    // A desktop that remembers the shortcut from an earlier run lists it:
    // no second dialog.
    void rememberedShortcutNeedsNoDialog()
    {
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        {
            PortalShortcutBackend first(clientOf(portal));
            QSignalSpy changed(&first, &ShortcutBackend::installationChanged);
            first.install(kBacktick);
            QVERIFY(waitForAnswer(changed));
        }
        PortalShortcutBackend second(clientOf(portal));
        QSignalSpy changed(&second, &ShortcutBackend::installationChanged);
        second.install(kBacktick);
        QVERIFY(waitForAnswer(changed));
        QVERIFY(second.verifyInstalled(kBacktick));
        QCOMPARE(second.triggerDescription(), QStringLiteral("grave"));
        QCOMPARE(portal.calls("GlobalShortcuts.BindShortcuts").size(), 1);
        QCOMPARE(portal.calls("GlobalShortcuts.ListShortcuts").size(), 2);
    }

    void desktopChangesAndSessionEnd()
    {
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);
        backend.install(kBacktick);
        QVERIFY(waitForAnswer(changed));

        portal.changeTrigger("Meta+D"); // changed in the desktop's settings
        QVERIFY(waitForAnswer(changed, 2));
        QCOMPARE(backend.triggerDescription(), QStringLiteral("Meta+D"));
        QVERIFY(backend.verifyInstalled(kBacktick));

        portal.closeSessions();
        QVERIFY(waitForAnswer(changed, 3));
        QVERIFY(!backend.verifyInstalled(kBacktick));
        QVERIFY(!backend.failureReason().isEmpty());

        // Keys of a closed session do nothing.
        QSignalSpy pressed(&backend, &ShortcutBackend::pressed);
        portal.press();
        QTest::qWait(100);
        QCOMPARE(pressed.count(), 0);

        // The monitor's retries open one fresh session once the pause is over.
        QVERIFY(QTest::qWaitFor([&] { return backend.install(kBacktick); }, 5000));
        QCOMPARE(portal.calls("GlobalShortcuts.CreateSession").size(), 2);
    }

    // Each desktop's answers, with install() called as often as the
    // readiness monitor would (on every change and every second).
    void desktopAnswers_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<bool>("secondRun");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<int>("binds");
        QTest::newRow("gnome: a known shortcut is answered as an error with its list")
            << QStringList{"--bind-answer", "gnome"} << true << true << 2;
        QTest::newRow("gnome refuses an unregistered app: the id goes first")
            << QStringList{"--require-app-id"} << false << true << 1;
        QTest::newRow("bind error: backs off") << QStringList{"--bind-answer", "error"} << false << false << 2;
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
            PortalShortcutBackend backend(clientOf(portal));
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

    // One trigger per symbol the key types on the user's layouts; a press
    // under any of them is the shortcut.
    void layoutTriggers_data()
    {
        QTest::addColumn<QString>("layouts");
        QTest::addColumn<QStringList>("triggers");
        QTest::newRow("us") << "us" << QStringList{"grave"};
        QTest::newRow("german") << "de" << QStringList{"dead_circumflex"};
        QTest::newRow("russian, and the US name") << "ru" << QStringList{"Cyrillic_io", "grave"};
        QTest::newRow("russian and us") << "ru,us" << QStringList{"Cyrillic_io", "grave"};
        QTest::newRow("us twice") << "us,us" << QStringList{"grave"};
        QTest::newRow("unknown layout: the US name") << "no-such-layout" << QStringList{"grave"};
    }

    void layoutTriggers()
    {
        QFETCH(QString, layouts);
        QFETCH(QStringList, triggers);
        if (!QFile::exists("/usr/share/X11/xkb/symbols/ru"))
            QSKIP("xkb-data is not installed");
        QList<portal::LayoutName> names;
        for (const QString &layout : layouts.split(','))
            names.append({layout, {}});
        QCOMPARE(portal::preferredTriggers(kBacktick, names), triggers);

        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal), [&](const GlobalShortcut &s) { return portal::preferredTriggers(s, names); });
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);
        backend.install(kBacktick);
        QVERIFY(waitForAnswer(changed));
        const QJsonArray entries = portal.calls("GlobalShortcuts.BindShortcuts")[0].toArray()[1].toArray();
        QCOMPARE(entries.size(), triggers.size());
        QSignalSpy pressed(&backend, &ShortcutBackend::pressed);
        portal.press(entries.last().toArray()[0].toString());
        QVERIFY(waitForAnswer(pressed));
    }

    // GNOME is given the physical key (its X keycode), the same on every
    // layout; the sheet still shows the key's own name, not the code.
    void keycodeTrigger_data()
    {
        QTest::addColumn<GlobalShortcut>("shortcut");
        QTest::addColumn<QString>("trigger");
        QTest::addColumn<QString>("shown");
        QTest::newRow("key below Escape") << kBacktick << "0x31" << "`";
        QTest::newRow("with modifiers") << kCtrlAltK << "CTRL+ALT+0x2d" << "Ctrl+Alt+K";
    }

    void keycodeTrigger()
    {
        QFETCH(GlobalShortcut, shortcut);
        QFETCH(QString, trigger);
        QFETCH(QString, shown);
        QCOMPARE(portal::keycodeTrigger(shortcut), std::optional(trigger));
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal), [](const GlobalShortcut &s) {
            return std::optional(QStringList{*portal::keycodeTrigger(s)});
        });
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);
        backend.install(shortcut);
        QVERIFY(waitForAnswer(changed));
        QCOMPARE(backend.triggerDescription(), shown);
    }

    // A layout added while Dictora runs gets its own entry in a fresh
    // session; the key keeps working meanwhile, and an unchanged list binds
    // nothing. GNOME lists nothing to a new session and answers the bind.
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
        FakePortal portal;
        QVERIFY2(portal.start({"--bind-answer", answer}), qPrintable(portal.errorText()));
        std::optional<QList<portal::LayoutName>> layouts; // not read yet
        PortalShortcutBackend backend(clientOf(portal), [&](const GlobalShortcut &s) -> std::optional<QStringList> {
            return layouts ? std::optional(portal::preferredTriggers(s, *layouts)) : std::nullopt;
        });
        connect(&backend, &ShortcutBackend::installationChanged, &backend, [&] { backend.install(kBacktick); });
        backend.install(kBacktick);
        QTest::qWait(200);
        QCOMPARE(portal.calls("GlobalShortcuts.CreateSession").size(), 0); // nothing bound before the layouts are known
        layouts = QList<portal::LayoutName>{{"us", {}}};
        backend.triggersChanged();
        QVERIFY(QTest::qWaitFor([&] { return backend.verifyInstalled(kBacktick); }, 10000));

        layouts->append(portal::LayoutName{"de", {}});
        backend.triggersChanged();
        QVERIFY(backend.verifyInstalled(kBacktick));
        QVERIFY(QTest::qWaitFor([&] { return portal.calls("GlobalShortcuts.BindShortcuts").size() == 2; }, 10000));
        QVERIFY(QTest::qWaitFor([&] { return backend.stage() == PortalShortcutBackend::Stage::bound; }, 10000));
        QSignalSpy pressed(&backend, &ShortcutBackend::pressed);
        portal.press("dictate-dead_circumflex");
        QVERIFY(waitForAnswer(pressed));

        backend.triggersChanged();
        QTest::qWait(300);
        QCOMPARE(portal.calls("GlobalShortcuts.CreateSession").size(), 2);
    }

    // KDE's settings write kxkbrc and say so on the bus: the watch reads it again.
    void layoutWatchFollowsKde()
    {
        QTemporaryDir config;
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        qunsetenv("XKB_DEFAULT_LAYOUT");
        const auto writeLayouts = [&](const char *list) {
            QSettings kxkbrc(config.filePath("kxkbrc"), QSettings::IniFormat);
            kxkbrc.setValue("Layout/LayoutList", QString::fromLatin1(list));
        };
        writeLayouts("us");
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        portal::LayoutWatch watch(clientOf(portal));
        QSignalSpy changed(&watch, &portal::LayoutWatch::changed);
        QVERIFY(waitForAnswer(changed));
        QCOMPARE(watch.layouts()->value(0).layout, QStringLiteral("us"));
        writeLayouts("ru,us");
        clientOf(portal).send(QDBusMessage::createSignal("/Layouts", "org.kde.keyboard", "reloadConfig"));
        QVERIFY(waitForAnswer(changed, 2));
        QCOMPARE(watch.layouts()->size(), 2);
    }

    // The portal restarts: the app id goes again first, and the shortcut
    // comes back in a fresh session without anyone asking.
    void portalRestart()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--require-app-id"}), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        connect(&backend, &ShortcutBackend::installationChanged, &backend, [&] { backend.install(kBacktick); });
        backend.install(kBacktick);
        QVERIFY(QTest::qWaitFor([&] { return backend.verifyInstalled(kBacktick); }, 10000));
        QVERIFY(portal.restartPortal());
        QVERIFY(QTest::qWaitFor([&] { return portal.calls("GlobalShortcuts.CreateSession").size() == 1; }, 10000));
        QVERIFY(QTest::qWaitFor([&] { return backend.verifyInstalled(kBacktick); }, 10000));
        QCOMPARE(portal.calls("Registry.Register").size(), 1);
        QSignalSpy pressed(&backend, &ShortcutBackend::pressed);
        portal.press();
        QVERIFY(waitForAnswer(pressed));
    }

    void desktopWithoutGlobalShortcuts()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--shortcuts-version", "0"}), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        QCOMPARE(backend.portalVersion(), 0u);
        QVERIFY(!backend.install(kBacktick));
        QVERIFY(backend.failureReason().contains("dictora toggle"));
        QVERIFY(portal.calls("GlobalShortcuts.CreateSession").isEmpty());
    }

    void uninstallClosesTheSession()
    {
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        PortalShortcutBackend backend(clientOf(portal));
        QSignalSpy changed(&backend, &ShortcutBackend::installationChanged);
        backend.install(kBacktick);
        QVERIFY(waitForAnswer(changed));
        backend.uninstall();
        backend.uninstall();
        QVERIFY(!backend.verifyInstalled(kBacktick));
        QVERIFY(QTest::qWaitFor([&] { return portal.calls("Session.Close").size() == 1; }, 5000));
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (const QString reason = FakePortal::unavailableReason(); !reason.isEmpty())
        return dictora::test::skipAll(qPrintable(reason));
    TestPortalShortcut tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_portal_shortcut.moc"
