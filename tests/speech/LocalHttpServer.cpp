#include "LocalHttpServer.h"

#include <QFile>
#include <QTcpSocket>

namespace dictora::test {

struct LocalHttpServer::Connection {
    QTcpSocket *socket = nullptr;
    QByteArray request;
    bool answered = false;
    HttpAnswer answer;
    std::unique_ptr<QFile> file;
    qint64 bodySent = 0;
    qint64 bodyTotal = 0;
};

namespace {

constexpr qint64 kChunk = 256 * 1024;

} // namespace

LocalHttpServer::LocalHttpServer()
{
    connect(&m_server, &QTcpServer::newConnection, this, &LocalHttpServer::onNewConnection);
}

LocalHttpServer::~LocalHttpServer()
{
    for (const auto &connection : m_connections)
        connection->socket->abort();
}

bool LocalHttpServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QUrl LocalHttpServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
}

void LocalHttpServer::script(const QString &path, QList<HttpAnswer> answers)
{
    m_scripts.insert(path, std::move(answers));
    m_requests.insert(path, 0);
}

void LocalHttpServer::onNewConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        auto connection = std::make_shared<Connection>();
        connection->socket = socket;
        socket->setParent(this);
        Connection *raw = connection.get();
        m_connections.append(connection);
        connect(socket, &QTcpSocket::readyRead, this, [this, raw] { onReadyRead(raw); });
        connect(socket, &QTcpSocket::bytesWritten, this, [this, raw] { pump(raw); });
        connect(socket, &QTcpSocket::disconnected, this, [this, raw] {
            raw->socket->deleteLater();
            m_connections.removeIf([raw](const auto &c) { return c.get() == raw; });
        });
    }
}

void LocalHttpServer::onReadyRead(Connection *connection)
{
    connection->request += connection->socket->readAll();
    if (connection->answered || !connection->request.contains("\r\n\r\n"))
        return;
    connection->answered = true;
    const QList<QByteArray> requestLine = connection->request.left(connection->request.indexOf("\r\n")).split(' ');
    answer(connection, requestLine.size() >= 2 ? QString::fromLatin1(requestLine.at(1)) : QString());
}

void LocalHttpServer::answer(Connection *connection, const QString &path)
{
    const int index = m_requests.value(path);
    m_requests[path] = index + 1;
    const QList<HttpAnswer> script = m_scripts.value(path);
    HttpAnswer answer = script.isEmpty() ? HttpAnswer::failing(404) : script.at(std::min<qsizetype>(index, script.size() - 1));
    if (answer.silent)
        return;

    qint64 length = answer.body.size();
    if (!answer.bodyFile.isEmpty()) {
        connection->file = std::make_unique<QFile>(answer.bodyFile);
        if (!connection->file->open(QIODevice::ReadOnly))
            qFatal("cannot serve %s", qPrintable(answer.bodyFile));
        length = connection->file->size();
    }
    // Clients go by the code, never the reason phrase.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + " Status\r\n";
    head += "Content-Type: application/octet-stream\r\nConnection: close\r\n";
    if (answer.sendLength)
        head += "Content-Length: " + QByteArray::number(answer.claimedLength >= 0 ? answer.claimedLength : length) + "\r\n";
    if (answer.location.isValid())
        head += "Location: " + answer.location.toEncoded() + "\r\n";
    head += "\r\n";
    connection->socket->write(head);
    connection->answer = answer;
    connection->bodyTotal = answer.dropAfter >= 0 ? std::min(length, answer.dropAfter) : length;
    pump(connection);
}

void LocalHttpServer::pump(Connection *connection)
{
    if (!connection->answered || connection->answer.silent)
        return;
    QTcpSocket *socket = connection->socket;
    while (connection->bodySent < connection->bodyTotal && socket->bytesToWrite() < 4 * kChunk) {
        const qint64 n = std::min(kChunk, connection->bodyTotal - connection->bodySent);
        QByteArray chunk = connection->file ? connection->file->read(n)
                                            : connection->answer.body.mid(connection->bodySent, n);
        if (chunk.isEmpty())
            break;
        socket->write(chunk);
        connection->bodySent += chunk.size();
    }
    if (connection->bodySent >= connection->bodyTotal && socket->bytesToWrite() == 0
        && socket->state() == QAbstractSocket::ConnectedState)
        socket->disconnectFromHost();
}

} // namespace dictora::test
