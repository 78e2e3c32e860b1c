#include "platform/portal/LayoutWatch.h"

#include "platform/portal/PortalRequest.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>

namespace dictora::portal {

LayoutWatch &LayoutWatch::instance()
{
    // Never deleted: a read in flight on the pool reports back to it.
    static LayoutWatch *watch = new LayoutWatch(QDBusConnection::sessionBus());
    return *watch;
}

LayoutWatch::LayoutWatch(QDBusConnection connection, QObject *parent)
    : QObject(parent), m_connection(std::move(connection))
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(150);
    connect(&m_settle, &QTimer::timeout, this, &LayoutWatch::read);
    m_connection.connect(QString(), QStringLiteral("/ca/desrt/dconf/Writer/user"), QStringLiteral("ca.desrt.dconf.Writer"),
        QStringLiteral("Notify"), this, SLOT(onDconfNotify(QDBusMessage)));
    for (const char *signal : {"reloadConfig", "layoutListChanged"}) {
        m_connection.connect(QString(), QStringLiteral("/Layouts"), QStringLiteral("org.kde.keyboard"),
            QLatin1String(signal), this, SLOT(onKdeLayouts()));
    }
    read();
}

// Notify carries (prefix, paths below it, tag).
void LayoutWatch::onDconfNotify(const QDBusMessage &message)
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() < 2)
        return;
    static const QString watched = QStringLiteral("/org/gnome/desktop/input-sources/");
    const QString prefix = arguments.at(0).toString();
    const QStringList paths = arguments.at(1).toStringList();
    const bool ours = (prefix + paths.value(0)).startsWith(watched) || watched.startsWith(prefix)
        || std::any_of(paths.cbegin(), paths.cend(), [&](const QString &path) { return (prefix + path).startsWith(watched); });
    if (ours)
        m_settle.start();
}

void LayoutWatch::onKdeLayouts()
{
    m_settle.start();
}

void LayoutWatch::read()
{
    if (m_reading) {
        m_readAgain = true;
        return;
    }
    m_reading = true;
    QThreadPool::globalInstance()->start([self = QPointer<LayoutWatch>(this)] {
        const QList<LayoutName> layouts = configuredLayouts();
        QMetaObject::invokeMethod(QCoreApplication::instance(), [self, layouts] {
            if (!self)
                return;
            self->m_reading = false;
            const bool differs = !self->m_layouts || *self->m_layouts != layouts;
            self->m_layouts = layouts;
            if (differs) {
                QStringList names;
                for (const LayoutName &name : layouts)
                    names << (name.variant.isEmpty() ? name.layout : name.layout + QLatin1Char('+') + name.variant);
                qCInfo(lcPortal, "keyboard layouts=%s", qPrintable(names.join(QLatin1Char(','))));
                Q_EMIT self->changed();
            }
            if (std::exchange(self->m_readAgain, false))
                self->read();
        }, Qt::QueuedConnection);
    });
}

} // namespace dictora::portal
