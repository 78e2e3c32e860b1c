#include "platform/portal/PortalRequest.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QPointer>

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
        if (done)
            done(reply.isError() ? reply.error().name() + QStringLiteral(": ") + reply.error().message() : QString());
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

uint interfaceVersion(const QDBusConnection &connection, const QString &interface, int timeoutMs)
{
    if (!connection.isConnected())
        return 0;
    QDBusMessage get = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << interface << QStringLiteral("version");
    const QDBusMessage reply = connection.call(get, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    return qvariant_cast<QDBusVariant>(reply.arguments().first()).variant().toUInt();
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

} // namespace dictora::portal
