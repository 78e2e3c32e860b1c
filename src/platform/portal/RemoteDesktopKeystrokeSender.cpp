#include "platform/portal/RemoteDesktopKeystrokeSender.h"

#include "platform/portal/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>

namespace dictora::portal {

namespace {
QString errorSuffix(const QVariantMap &results)
{
    const QString error = results.value(QStringLiteral("error")).toString();
    return error.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(error);
}
} // namespace

RemoteDesktopKeystrokeSender::RemoteDesktopKeystrokeSender(QDBusConnection connection, TokenStore tokens,
    int keyForV, QObject *parent)
    : QObject(parent), m_connection(std::move(connection)), m_tokens(std::move(tokens)), m_keyForV(keyForV)
{
    m_version = interfaceVersion(m_connection, QLatin1String(kInterface));
    if (m_version == 0)
        setStage(Stage::failed, QStringLiteral("This desktop's portal cannot type for applications (no RemoteDesktop)."));
}

RemoteDesktopKeystrokeSender::~RemoteDesktopKeystrokeSender()
{
    if (!m_session.isEmpty()) {
        m_connection.asyncCall(QDBusMessage::createMethodCall(QLatin1String(kService), m_session,
            QLatin1String(kSessionInterface), QStringLiteral("Close")));
    }
}

void RemoteDesktopKeystrokeSender::setStage(Stage stage, const QString &reason)
{
    m_stage = stage;
    m_failureReason = reason;
    if (stage == Stage::refused || stage == Stage::failed)
        m_queued.reset();
    Q_EMIT stageChanged(stage);
}

void RemoteDesktopKeystrokeSender::start()
{
    if (m_version == 0 || m_stage == Stage::starting || m_stage == Stage::started)
        return;
    setStage(Stage::starting, QStringLiteral("Waiting for you to allow Dictora to type in the desktop's dialog."));
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), newHandleToken()}}, this,
        [this](ResponseCode code, const QVariantMap &results) {
            if (code != ResponseCode::success) {
                setStage(Stage::failed, QStringLiteral("The desktop did not open a remote input session%1.").arg(errorSuffix(results)));
                return;
            }
            const QVariant handle = results.value(QStringLiteral("session_handle"));
            m_session = handle.userType() == qMetaTypeId<QDBusObjectPath>() ? handle.value<QDBusObjectPath>().path()
                                                                             : handle.toString();
            m_connection.connect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
                QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
            selectDevices();
        });
}

void RemoteDesktopKeystrokeSender::selectDevices()
{
    QVariantMap options{{QStringLiteral("types"), kKeyboard}};
    // Restore tokens and persistence came with version 2 of the interface.
    if (m_version >= 2) {
        options.insert(QStringLiteral("persist_mode"), kPersistUntilRevoked);
        const QString token = m_tokens.load ? m_tokens.load() : QString();
        if (!token.isEmpty())
            options.insert(QStringLiteral("restore_token"), token);
    }
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("SelectDevices"),
        {QVariant::fromValue(QDBusObjectPath(m_session))}, options, this,
        [this](ResponseCode code, const QVariantMap &results) {
            if (code != ResponseCode::success) {
                setStage(code == ResponseCode::cancelled ? Stage::refused : Stage::failed,
                    QStringLiteral("The desktop refused a keyboard for Dictora%1.").arg(errorSuffix(results)));
                return;
            }
            startSession();
        });
}

void RemoteDesktopKeystrokeSender::startSession()
{
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("Start"),
        {QVariant::fromValue(QDBusObjectPath(m_session)), QString()}, {}, this,
        [this](ResponseCode code, const QVariantMap &results) {
            if (code == ResponseCode::cancelled) {
                // A token the user has revoked is worthless; the next start asks afresh.
                if (m_tokens.save)
                    m_tokens.save({});
                setStage(Stage::refused, QStringLiteral("Typing was not allowed in the desktop's dialog, so Dictora "
                                                        "cannot paste. Allow it to paste your dictations."));
                return;
            }
            if (code != ResponseCode::success) {
                setStage(Stage::failed, QStringLiteral("The desktop could not start remote input%1.").arg(errorSuffix(results)));
                return;
            }
            const uint devices = results.value(QStringLiteral("devices")).toUInt();
            if ((devices & kKeyboard) == 0) {
                setStage(Stage::refused, QStringLiteral("The desktop granted no keyboard, so Dictora cannot paste."));
                return;
            }
            const QString token = results.value(QStringLiteral("restore_token")).toString();
            if (!token.isEmpty() && m_tokens.save)
                m_tokens.save(token);
            setStage(Stage::started);
            if (const std::optional<PasteKeystroke> queued = std::exchange(m_queued, std::nullopt))
                type(*queued);
        });
}

bool RemoteDesktopKeystrokeSender::send(PasteKeystroke keystroke)
{
    switch (m_stage) {
    case Stage::started:
        type(keystroke);
        return true;
    case Stage::idle:
    case Stage::refused:
        // Refused earlier: a paste is the moment the user expects the question.
        m_queued = keystroke;
        start();
        return m_stage == Stage::starting;
    case Stage::starting:
        m_queued = keystroke;
        return true;
    case Stage::failed:
        return false;
    }
    return false;
}

void RemoteDesktopKeystrokeSender::type(PasteKeystroke keystroke)
{
    // Calls on one connection arrive in order; no reply is awaited, so the
    // GUI thread never waits on the desktop.
    for (const KeyTransition &t : keySequence(keystroke, m_keyForV)) {
        QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
            QLatin1String(kInterface), QStringLiteral("NotifyKeyboardKeycode"));
        call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap() << t.code << uint(t.down ? 1 : 0);
        m_connection.asyncCall(call);
    }
}

void RemoteDesktopKeystrokeSender::onSessionClosed()
{
    m_session.clear();
    setStage(Stage::idle, QStringLiteral("The desktop ended Dictora's remote input session."));
}

} // namespace dictora::portal
