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

Q_SIGNALS:
    void restarted();

private:
    explicit PortalService(const QDBusConnection &connection);
    void registerApplication();

    QDBusConnection m_connection;
    QDBusServiceWatcher m_watcher;
    bool m_lost = false;
};

} // namespace dictora::portal
