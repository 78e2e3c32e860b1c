#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QLocalServer;

namespace dictora {

// One running Dictora per user session. The running instance listens on a
// local socket; a second start sends it one command line ("show", "toggle")
// and prints the one-line reply.
class SingleInstanceServer : public QObject {
    Q_OBJECT
public:
    using Handler = std::function<QString(const QString &command)>;

    SingleInstanceServer(QString socketPath, Handler handler, QObject *parent = nullptr);
    ~SingleInstanceServer() override;

    // False when another instance answers on the socket, or the socket cannot be made.
    bool listen(QString *errorText = nullptr);

    // A command whose reply comes later (a paste answers once it is out).
    using Reply = std::function<void(const QString &reply)>;
    void setDeferredCommand(const QString &command, std::function<void(Reply reply)> handler);

private:
    void acceptConnections();

    QString m_socketPath;
    Handler m_handler;
    QHash<QString, std::function<void(Reply)>> m_deferred;
    QLocalServer *m_server = nullptr;
};

// The running instance's reply, or nothing when no instance answers in time.
std::optional<QString> sendToRunningInstance(const QString &socketPath, const QString &command,
    int timeoutMs = 3000);

} // namespace dictora
