#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/RemoteDesktopKeystrokeSender.h"
#include "support/TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QSignalSpy>
#include <QRegularExpression>
#include <QtTest>

using namespace dictora;
using dictora::portal::PortalShortcutBackend;
using dictora::portal::RemoteDesktopKeystrokeSender;

namespace {
// The portal's objects of ours: "session"s open, "request"s still awaiting their Response.
QStringList portalObjects(const QString &kind)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString path = QStringLiteral("%1/%2/%3").arg(QLatin1String(portal::kPath), kind, portal::senderPathPart(bus));
    QDBusInterface node(QLatin1String(portal::kService), path, QStringLiteral("org.freedesktop.DBus.Introspectable"), bus);
    const QDBusReply<QString> xml = node.call(QStringLiteral("Introspect"));
    QStringList children;
    static const QRegularExpression child(QStringLiteral("<node name=\"([^\"]+)\""));
    for (const QRegularExpressionMatch &match : child.globalMatch(xml.value()))
        children << match.captured(1);
    return children;
}
} // namespace

// The real xdg-desktop-portal in a headless KWin or Mutter, each conversation
// followed up to the consent dialog nobody can click here.
class TestRealPortal : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.isConnected());
        // Started beside us; give it time to claim its name.
        QVERIFY(QTest::qWaitFor([&] { return bus.interface()->isServiceRegistered(portal::kService).value(); }, 20000));
    }

    // CreateSession and ListShortcuts answer through Request objects at the predicted paths; the bind
    // then waits for the dialog, binds at once, or (KDE Plasma 5.27) registers no key.
    void shortcutSessionBindsOrReachesTheDialog()
    {
        using Stage = PortalShortcutBackend::Stage;
        PortalShortcutBackend backend(QDBusConnection::sessionBus());
        QVERIFY(!backend.install(GlobalShortcut::defaultShortcut()));
        if (backend.portalVersion() == 0) {
            // Older GNOME: the desktop-binding backend takes over; the reason says what to bind.
            QVERIFY(qEnvironmentVariable("XDG_CURRENT_DESKTOP") != QLatin1String("KDE"));
            QVERIFY(backend.failureReason().contains("dictora toggle"));
            QSKIP("this desktop's portal has no GlobalShortcuts");
        }
        const auto settled = [&] {
            return backend.stage() == Stage::binding || backend.stage() == Stage::bound || backend.stage() == Stage::keyless;
        };
        QVERIFY2(QTest::qWaitFor(settled, 20000), qPrintable(backend.failureReason()));
        QTest::qWait(1000);
        QVERIFY2(settled(), qPrintable(backend.failureReason()));
        if (backend.stage() == Stage::bound) {
            QVERIFY(backend.install(GlobalShortcut::defaultShortcut()));
            QVERIFY(backend.verifyInstalled(GlobalShortcut::defaultShortcut()));
            qInfo("bound without a dialog; the desktop reports the trigger as \"%s\"", qPrintable(backend.triggerDescription()));
        } else if (backend.stage() == Stage::keyless) {
            QVERIFY(!backend.install(GlobalShortcut::defaultShortcut())); // no key: not installed, said so
            QVERIFY(backend.failureReason().contains("without a key"));
            qInfo("registered without a key");
        } else {
            QVERIFY(backend.failureReason().contains("Waiting"));
            qInfo("waiting for the desktop's dialog");
        }
    }

    // KDE Plasma 5.27 starts a keyboard session without a dialog; elsewhere the start waits for the user.
    void remoteDesktopSessionStartsOrReachesTheDialog()
    {
        using Stage = RemoteDesktopKeystrokeSender::Stage;
        RemoteDesktopKeystrokeSender sender(QDBusConnection::sessionBus(), {}, 47);
        qInfo("RemoteDesktop persistence: %s", sender.portalVersion() >= 2 ? "restore tokens" : "none (asks every run)");
        sender.start();
        QCOMPARE(sender.stage(), Stage::starting);
        (void)QTest::qWaitFor([&] { return sender.stage() != Stage::starting; }, 3000);
        QVERIFY2(sender.stage() == Stage::starting || sender.stage() == Stage::started, qPrintable(sender.failureReason()));
        if (sender.stage() == Stage::starting) {
            // CreateSession and SelectDevices were answered; only Start waits, on the dialog.
            QTRY_COMPARE_WITH_TIMEOUT(portalObjects(QStringLiteral("request")).size(), 1, 5000);
            QCOMPARE(portalObjects(QStringLiteral("session")).size(), 1);
            qInfo("waiting for the desktop's dialog");
        }
        if (sender.stage() == Stage::started) {
            qInfo("remote input session started without a dialog");
            QVERIFY(sender.send(PasteKeystroke::controlV));
            QTest::qWait(500);
            QCOMPARE(sender.stage(), Stage::started); // the portal did not end the session over it
        }
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariableIsEmpty("XDG_CURRENT_DESKTOP"))
        return dictora::test::skipAll("not inside a desktop session (run through with-desktop-portal)");
    QCoreApplication app(argc, argv);
    TestRealPortal tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_real_portal.moc"
