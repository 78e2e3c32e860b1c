#pragma once

#include "support/TestSupport.h"

#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QJsonArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <functional>

namespace dictora::test {

// A private session bus with fake_portal.py standing in for xdg-desktop-portal and its dialogs.
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
    // The same under a fresh name (the program keeps per-connection state by name).
    QDBusConnection client()
    {
        static int count = 0;
        return connect(QStringLiteral("client-%1").arg(++count));
    }

    // Control of the fake: keys, answers to the dialogs, the call log.
    // When the fake sent Activated (CLOCK_MONOTONIC, ns); 0 when the call failed.
    qint64 press(const QString &shortcutId = QStringLiteral("dictate"));
    // The same without waiting; the reply carries the time.
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

// Waits, serving the event loop, for as long as the fake's answers may take.
inline bool waitFor(const std::function<bool()> &done) { return QTest::qWaitFor(done, 10000); }

// main() of a test on the fake portal: skipped visibly where it cannot run.
template <typename Test>
int fakePortalMain(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (const QString reason = FakePortal::unavailableReason(); !reason.isEmpty())
        return skipAll(qPrintable(reason));
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace dictora::test
