#include "platform/portal/PortalService.h"

#include "platform/portal/PortalRequest.h"

#include <QCoreApplication>
#include <QHash>

namespace dictora::portal {

PortalService &PortalService::on(const QDBusConnection &connection)
{
    static QHash<QString, PortalService *> services;
    PortalService *&service = services[connection.name()];
    if (!service)
        service = new PortalService(connection); // parented to the application, when there is one
    return *service;
}

PortalService::PortalService(const QDBusConnection &connection)
    : QObject(QCoreApplication::instance())
    , m_connection(connection)
    , m_watcher(QLatin1String(kService), connection, QDBusServiceWatcher::WatchForOwnerChange)
{
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
        [this](const QString &, const QString &oldOwner, const QString &newOwner) {
            // Gone: whoever comes next is a fresh process. The first owner
            // after start-up is the one our first calls woke up.
            if (newOwner.isEmpty()) {
                m_lost = true;
                return;
            }
            if (oldOwner.isEmpty() && !m_lost)
                return;
            m_lost = false;
            registerApplication();
            Q_EMIT restarted();
        });
    registerApplication();
}

void PortalService::registerApplication()
{
    portal::registerApplication(m_connection, QLatin1String(kAppId), this, [](const QString &problem) {
        if (problem.isEmpty())
            qCInfo(lcPortal, "portal app id registered id=%s", kAppId);
        else
            qCWarning(lcPortal, "portal app id refused id=%s error=%s", kAppId, qPrintable(problem));
    });
}

} // namespace dictora::portal
