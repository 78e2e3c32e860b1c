#include "core/SingleInstance.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>

namespace dictora {

SingleInstanceServer::SingleInstanceServer(QString socketPath, Handler handler, QObject *parent)
    : QObject(parent), m_socketPath(std::move(socketPath)), m_handler(std::move(handler))
{
}

SingleInstanceServer::~SingleInstanceServer()
{
    if (m_server)
        m_server->close(); // removes the socket file
}

bool SingleInstanceServer::listen(QString *errorText)
{
    if (sendToRunningInstance(m_socketPath, QStringLiteral("ping"), 1000)) {
        if (errorText)
            *errorText = QStringLiteral("another instance is running");
        return false;
    }
    // Nobody answered: a socket file left by a crashed instance is stale.
    QLocalServer::removeServer(m_socketPath);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_socketPath)) {
        if (errorText)
            *errorText = m_server->errorString();
        return false;
    }
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstanceServer::acceptConnections);
    return true;
}

void SingleInstanceServer::acceptConnections()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
            if (!socket->canReadLine())
                return;
            const QString command = QString::fromUtf8(socket->readLine()).trimmed();
            const auto answer = [socket = QPointer<QLocalSocket>(socket)](const QString &reply) {
                if (!socket)
                    return; // the asker gave up
                socket->write(reply.toUtf8() + '\n');
                socket->flush();
                socket->disconnectFromServer();
            };
            if (const auto deferred = m_deferred.constFind(command); deferred != m_deferred.cend())
                (*deferred)(answer);
            else
                answer(command == QLatin1String("ping") ? QStringLiteral("pong") : m_handler(command));
        });
    }
}

void SingleInstanceServer::setDeferredCommand(const QString &command, std::function<void(Reply reply)> handler)
{
    m_deferred.insert(command, std::move(handler));
}

std::optional<QString> sendToRunningInstance(const QString &socketPath, const QString &command, int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(timeoutMs))
        return std::nullopt;
    socket.write(command.toUtf8() + '\n');
    if (!socket.waitForBytesWritten(timeoutMs))
        return std::nullopt;
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(timeoutMs))
            return std::nullopt;
    }
    return QString::fromUtf8(socket.readLine()).trimmed();
}

} // namespace dictora
