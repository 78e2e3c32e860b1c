#pragma once

#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QJsonArray>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace dictora::test {

// A private session bus (dbus-daemon) with fake_portal.py on it, standing in
// for xdg-desktop-portal and the consent dialogs a real desktop would show.
class FakePortal {
public:
    FakePortal() = default;
    ~FakePortal();

    // Why the rig cannot run here (no dbus-daemon, no python3-dbus), or empty.
    static QString unavailableReason();

    // Starts the bus and the portal with fake_portal.py's options.
    bool start(const QStringList &portalOptions = {});
    QString errorText() const { return m_error; }
    QString busAddress() const { return m_address; }

    // A new client connection to the private bus, as the program would have.
    QDBusConnection connect(const QString &name);
    // The same under a name no other connection of this process had (the
    // program keeps per-connection state by name).
    QDBusConnection client()
    {
        static int count = 0;
        return connect(QStringLiteral("client-%1").arg(++count));
    }

    // Control of the fake: keys, answers to the dialogs, the call log.
    // When the fake sent Activated (CLOCK_MONOTONIC, ns); 0 when the call failed.
    qint64 press(const QString &shortcutId = QStringLiteral("dictate"));
    // The same without waiting, so the caller's event loop stays free; the
    // reply carries the time.
    QDBusPendingCall pressAsync(const QString &shortcutId = QStringLiteral("dictate"));
    void release(const QString &shortcutId = QStringLiteral("dictate"));
    void changeTrigger(const QString &trigger, const QString &shortcutId = QStringLiteral("dictate"));
    void setAnswers(const QString &bind, const QString &consent);
    void closeSessions();
    QJsonArray calls();
    // The arguments of each call of one method ("GlobalShortcuts.BindShortcuts"), in order.
    QJsonArray calls(const QString &method);

private:
    void control(const QString &method, const QVariantList &arguments = {});

    QProcess m_bus;
    QProcess m_portal;
    QString m_address;
    QString m_error;
    QStringList m_connections;
    QVariant m_lastReply;
};

} // namespace dictora::test
