#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QUrl>

#include <memory>

namespace dictora::test {

// One scripted answer of the local HTTP server.
struct HttpAnswer {
    int status = 200;
    QByteArray body;
    QString bodyFile;          // streamed from this file instead of `body`
    bool sendLength = true;    // Content-Length header
    qint64 claimedLength = -1; // Content-Length to announce when not the real one
    qint64 dropAfter = -1;     // close the connection after this many body bytes
    QUrl location;             // Location header (redirects)
    bool silent = false;       // accept the request, never answer

    static HttpAnswer ok(QByteArray body) { HttpAnswer a; a.body = std::move(body); return a; }
    static HttpAnswer failing(int code) { HttpAnswer a; a.status = code; a.body = "error page"; return a; }
    static HttpAnswer redirect(const QUrl &to) { HttpAnswer a; a.status = 302; a.location = to; a.body = "moved"; return a; }
};

// A small HTTP/1.1 server on 127.0.0.1 for download tests and benchmarks.
// Each path has a script of answers: request n gets answer n, the last one
// repeats. Bodies from files are written as the socket drains, so the
// server's own memory stays small. Runs on the thread that created it.
class LocalHttpServer : public QObject {
    Q_OBJECT

public:
    LocalHttpServer();
    ~LocalHttpServer() override;

    bool listen();
    QUrl url(const QString &path) const;
    void script(const QString &path, QList<HttpAnswer> answers);
    int requestCount(const QString &path) const { return m_requests.value(path); }
    // Connections the client has not closed yet.
    int openConnections() const { return int(m_connections.size()); }

private:
    struct Connection;
    void onNewConnection();
    void onReadyRead(Connection *connection);
    void answer(Connection *connection, const QString &path);
    void pump(Connection *connection);

    QTcpServer m_server;
    QHash<QString, QList<HttpAnswer>> m_scripts;
    QHash<QString, int> m_requests;
    QList<std::shared_ptr<Connection>> m_connections;
};

} // namespace dictora::test
