#pragma once

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QObject>

namespace dictora::portal {

// The portal as one connection sees it. Registers the app id before the
// connection's first portal call and again whenever the portal restarts (a
// new portal process knows nothing of us), then tells the backends, whose
// sessions went with the old process.
class PortalService final : public QObject {
    Q_OBJECT
public:
    // One per connection, created on first use; lives as long as the process.
    static PortalService &on(const QDBusConnection &connection);

    // A session token for this portal process: after a restart the old
    // handle may still be known to the desktop's backend, which then routes
    // the new session's signals to the dead one.
    QString sessionToken(const char *base) const
    {
        return m_restarts == 0 ? QLatin1String(base) : QStringLiteral("%1_%2").arg(QLatin1String(base)).arg(m_restarts);
    }

    // Why the desktop did not take the app id; empty while nothing went wrong.
    QString registrationProblem() const { return m_registrationProblem; }

Q_SIGNALS:
    void restarted();

private:
    explicit PortalService(const QDBusConnection &connection);
    void registerApplication();

    QDBusConnection m_connection;
    QDBusServiceWatcher m_watcher;
    QString m_registrationProblem;
    bool m_lost = false;
    uint m_restarts = 0;
};

} // namespace dictora::portal
