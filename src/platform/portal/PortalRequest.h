#pragma once

#include <QDBusConnection>
#include <QLoggingCategory>
#include <QDBusObjectPath>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <functional>

// What the portals answered, in the runtime log.
Q_DECLARE_LOGGING_CATEGORY(lcPortal)

namespace dictora::portal {

inline constexpr auto kService = "org.freedesktop.portal.Desktop";
inline constexpr auto kPath = "/org/freedesktop/portal/desktop";
inline constexpr auto kRequestInterface = "org.freedesktop.portal.Request";
inline constexpr auto kSessionInterface = "org.freedesktop.portal.Session";

// How a portal request ended (the Response signal's first argument).
enum class ResponseCode : uint { success = 0, cancelled = 1, other = 2 };

// "dictora_<n>": unique per process, valid in an object path. Predictable on
// purpose: desktops without an app id name what they keep after the token.
QString newHandleToken();

// The app id this process shows the desktop (the desktop file's name).
inline constexpr auto kAppId = "com.dictora.Dictora";

// Tells the portal which application this connection belongs to, so that it
// keeps one shortcut entry and one consent for Dictora across runs. Must be
// the connection's first portal call; later calls on it queue behind this one.
// Asynchronous: `done` receives an error text, empty on success.
void registerApplication(const QDBusConnection &connection, const QString &appId, QObject *context,
    std::function<void(const QString &error)> done);
// ":1.42" -> "1_42", the sender part of request and session paths.
QString senderPathPart(const QDBusConnection &connection);
QString requestPath(const QDBusConnection &connection, const QString &token);
QString sessionPath(const QDBusConnection &connection, const QString &token);

// The portal's version of an interface, 0 when the portal or the interface
// is missing. Blocks for at most `timeoutMs`.
uint interfaceVersion(const QDBusConnection &connection, const QString &interface, int timeoutMs = 2000);
// Asks for several interfaces' versions at once on the thread pool, so that
// start-up finds them answered by the time it chooses its mechanisms. Once
// per connection; later calls change nothing.
void probeInterfaceVersions(const QDBusConnection &connection, const QStringList &interfaces);
// The probe's answer for `interface` (waiting for the probe if it is still
// out), or, where no probe asked for it, interfaceVersion().
uint knownInterfaceVersion(const QDBusConnection &connection, const QString &interface);

// One call that answers through a Request object: subscribes to the Response
// on the path the portal will use before calling, so a fast reply is never
// missed, then follows the path the portal actually returns. Deletes itself
// after calling `done` (also when the call itself fails: code `other` and an
// "error" entry holding the D-Bus error text).
class PortalRequest : public QObject {
    Q_OBJECT
public:
    using Done = std::function<void(ResponseCode code, const QVariantMap &results)>;

    // `options` receives the handle_token; the method's last argument must be the options.
    static void call(const QDBusConnection &connection, const QString &interface, const QString &method,
        QVariantList argumentsBeforeOptions, QVariantMap options, QObject *context, Done done);

private Q_SLOTS:
    void onResponse(uint response, const QVariantMap &results);

private:
    PortalRequest(const QDBusConnection &connection, QObject *context, Done done);
    bool listen(const QString &path);
    void unlisten();
    void finish(ResponseCode code, const QVariantMap &results);

    QDBusConnection m_connection;
    QString m_path;
    QPointer<QObject> m_context;
    Done m_done;
    bool m_finished = false;
};

// " (the D-Bus error)" where a request failed on the bus, else "": for the end of a sentence.
QString errorSuffix(const QVariantMap &results);

// Opens a session on `interface` under `token`. `done` gets the session's
// object path, or an empty one and errorSuffix()'s words for why not.
using SessionDone = std::function<void(const QString &session, const QString &why)>;
void openSession(const QDBusConnection &connection, const QString &interface, const QString &token,
    QObject *context, SessionDone done);

} // namespace dictora::portal
