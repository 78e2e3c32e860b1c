#include "platform/portal/PortalRequest.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFuture>
#include <QHash>
#include <QMutex>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>

#include <atomic>

Q_LOGGING_CATEGORY(lcPortal, "dictora.portal", QtInfoMsg)

namespace dictora::portal {

QString newHandleToken()
{
    static std::atomic<uint> counter{0};
    return QStringLiteral("dictora_%1").arg(++counter);
}

void registerApplication(const QDBusConnection &connection, const QString &appId, QObject *context,
    std::function<void(const QString &error)> done)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
        QStringLiteral("org.freedesktop.host.portal.Registry"), QStringLiteral("Register"));
    call << appId << QVariant::fromValue(QVariantMap());
    auto *watcher = new QDBusPendingCallWatcher(connection.asyncCall(call), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, done = std::move(done)] {
        watcher->deleteLater();
        const QDBusPendingReply<> reply = *watcher;
        if (!done)
            return;
        // A second registration on one connection (the portal restarted
        // twice in a row) is refused, but the first one holds.
        const bool fine = !reply.isError() || reply.error().message().contains(QLatin1String("already associated"));
        done(fine ? QString() : reply.error().name() + QStringLiteral(": ") + reply.error().message());
    });
}

QString senderPathPart(const QDBusConnection &connection)
{
    QString name = connection.baseService();
    if (name.startsWith(QLatin1Char(':')))
        name.remove(0, 1);
    return name.replace(QLatin1Char('.'), QLatin1Char('_'));
}

QString requestPath(const QDBusConnection &connection, const QString &token)
{
    return QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(senderPathPart(connection), token);
}

QString sessionPath(const QDBusConnection &connection, const QString &token)
{
    return QStringLiteral("/org/freedesktop/portal/desktop/session/%1/%2").arg(senderPathPart(connection), token);
}

namespace {

QDBusMessage versionQuery(const QString &interface)
{
    QDBusMessage get = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << interface << QStringLiteral("version");
    return get;
}

uint versionFrom(const QDBusMessage &reply)
{
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    return qvariant_cast<QDBusVariant>(reply.arguments().first()).variant().toUInt();
}

struct VersionProbe {
    QStringList interfaces;
    QFuture<QList<uint>> versions;
};

QMutex probesMutex;
QHash<QString, VersionProbe> probes; // by connection name

} // namespace

uint interfaceVersion(const QDBusConnection &connection, const QString &interface, int timeoutMs)
{
    if (!connection.isConnected())
        return 0;
    return versionFrom(connection.call(versionQuery(interface), QDBus::Block, timeoutMs));
}

void probeInterfaceVersions(const QDBusConnection &connection, const QStringList &interfaces)
{
    const QMutexLocker lock(&probesMutex);
    if (probes.contains(connection.name()))
        return;
    probes.insert(connection.name(), {interfaces, QtConcurrent::run([connection, interfaces] {
        QList<uint> versions(interfaces.size(), 0);
        if (!connection.isConnected())
            return versions;
        // All asked before any answer is awaited: one round trip, also when
        // the first call has to start the portal.
        QList<QDBusPendingCall> calls;
        for (const QString &interface : interfaces)
            calls << connection.asyncCall(versionQuery(interface), 2000);
        for (qsizetype i = 0; i < calls.size(); ++i) {
            calls[i].waitForFinished();
            versions[i] = versionFrom(calls[i].reply());
        }
        return versions;
    })});
}

uint knownInterfaceVersion(const QDBusConnection &connection, const QString &interface)
{
    QFuture<QList<uint>> versions;
    qsizetype index = -1;
    {
        const QMutexLocker lock(&probesMutex);
        const auto probe = probes.constFind(connection.name());
        if (probe != probes.cend()) {
            index = probe->interfaces.indexOf(interface);
            versions = probe->versions;
        }
    }
    if (index < 0)
        return interfaceVersion(connection, interface);
    if (!versions.isFinished()) {
        QElapsedTimer waited;
        waited.start();
        versions.waitForFinished();
        qCInfo(lcPortal, "portal versions awaited ms=%lld", waited.elapsed());
    }
    return versions.result().value(index);
}

PortalRequest::PortalRequest(const QDBusConnection &connection, QObject *context, Done done)
    : QObject(nullptr), m_connection(connection), m_context(context), m_done(std::move(done))
{
}


void PortalRequest::call(const QDBusConnection &connection, const QString &interface, const QString &method,
    QVariantList argumentsBeforeOptions, QVariantMap options, QObject *context, Done done)
{
    auto *request = new PortalRequest(connection, context, std::move(done));
    const QString token = newHandleToken();
    options.insert(QStringLiteral("handle_token"), token);
    request->listen(requestPath(connection, token));

    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath), interface, method);
    argumentsBeforeOptions << QVariant::fromValue(options);
    message.setArguments(argumentsBeforeOptions);
    auto *watcher = new QDBusPendingCallWatcher(connection.asyncCall(message), request);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, request, [request, watcher] {
        watcher->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *watcher;
        if (reply.isError()) {
            request->finish(ResponseCode::other, {{QStringLiteral("error"), reply.error().message()}});
            return;
        }
        // Portals before 0.9 chose their own path; follow it.
        const QString actual = reply.value().path();
        if (!request->m_finished && actual != request->m_path) {
            request->unlisten();
            request->listen(actual);
        }
    });
}

bool PortalRequest::listen(const QString &path)
{
    m_path = path;
    return m_connection.connect(QLatin1String(kService), path, QLatin1String(kRequestInterface),
        QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::unlisten()
{
    m_connection.disconnect(QLatin1String(kService), m_path, QLatin1String(kRequestInterface),
        QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::onResponse(uint response, const QVariantMap &results)
{
    finish(response <= 2 ? static_cast<ResponseCode>(response) : ResponseCode::other, results);
}

void PortalRequest::finish(ResponseCode code, const QVariantMap &results)
{
    if (m_finished)
        return;
    m_finished = true;
    unlisten();
    // The owner may have gone while the dialog was open.
    if (m_context)
        m_done(code, results);
    deleteLater();
}

QString errorSuffix(const QVariantMap &results)
{
    const QString error = results.value(QStringLiteral("error")).toString();
    return error.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(error);
}

void openSession(const QDBusConnection &connection, const QString &interface, const QString &token,
    QObject *context, SessionDone done)
{
    PortalRequest::call(connection, interface, QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), token}}, context,
        [done = std::move(done)](ResponseCode code, const QVariantMap &results) {
            if (code != ResponseCode::success) {
                done({}, errorSuffix(results));
                return;
            }
            // Documented as a string holding an object path; some portals send an object path.
            const QVariant handle = results.value(QStringLiteral("session_handle"));
            const QString session = handle.userType() == qMetaTypeId<QDBusObjectPath>()
                ? handle.value<QDBusObjectPath>().path()
                : handle.toString();
            done(session, session.isEmpty() ? QStringLiteral(" (it came without a handle)") : QString());
        });
}

} // namespace dictora::portal
