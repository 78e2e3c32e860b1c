#include "platform/portal/RemoteDesktopKeystrokeSender.h"

#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalService.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>
#include <QTimer>

namespace dictora::portal {

namespace {
const QString kClosedUnanswered = QStringLiteral(
    "The desktop's dialog closed without an answer. Dictora asks again at the next paste.");
} // namespace

RemoteDesktopKeystrokeSender::RemoteDesktopKeystrokeSender(QDBusConnection connection, TokenStore tokens,
    int keyForV, QObject *parent)
    : QObject(parent), m_connection(std::move(connection)), m_tokens(std::move(tokens)), m_keyForV(keyForV)
{
    m_version = knownInterfaceVersion(m_connection, QLatin1String(kInterface));
    if (m_version == 0) {
        setStage(Stage::failed, QStringLiteral("This desktop's portal cannot type for applications (no RemoteDesktop)."));
        return;
    }
    connect(&PortalService::on(m_connection), &PortalService::restarted, this, [this] {
        const bool wasStarted = m_stage == Stage::started || m_stage == Stage::starting;
        forgetSession(false);
        setStage(Stage::idle, QStringLiteral("The desktop's portal restarted."));
        if (wasStarted)
            start();
    });
    // A kept answer asks nobody: be ready before the first paste.
    if (hasKeptConsent())
        start();
}

RemoteDesktopKeystrokeSender::~RemoteDesktopKeystrokeSender()
{
    forgetSession();
}

void RemoteDesktopKeystrokeSender::setStage(Stage stage, const QString &reason)
{
    m_stage = stage;
    m_failureReason = reason;
    if (stage == Stage::started)
        m_consent = Consent::allowed;
    else if (stage == Stage::refused)
        m_consent = Consent::refused;
    else if (stage != Stage::starting)
        m_consent = Consent::unknown;
    if (stage == Stage::refused || stage == Stage::failed || stage == Stage::idle) {
        if (std::optional<Queued> queued = std::exchange(m_queued, std::nullopt); queued && queued->done)
            queued->done(reason.isEmpty() ? QStringLiteral("Dictora may not type on this desktop.") : reason);
    }
    static const char *const names[] = {"idle", "starting", "started", "refused", "failed"};
    qCInfo(lcPortal, "portal typing stage=%s%s", names[int(stage)],
        reason.isEmpty() ? "" : qPrintable(QStringLiteral(" reason=") + reason));
    Q_EMIT stageChanged(stage);
}

void RemoteDesktopKeystrokeSender::start()
{
    if (m_version == 0 || m_stage == Stage::starting || m_stage == Stage::started)
        return;
    setStage(Stage::starting, QStringLiteral("Waiting for you to allow Dictora to type in the desktop's dialog."));
    const uint generation = ++m_generation;
    openSession(m_connection, QLatin1String(kInterface), QLatin1String(kSessionToken), this,
        [this, generation](const QString &session, const QString &why) {
            if (generation != m_generation)
                return;
            if (session.isEmpty()) {
                setStage(Stage::idle, QStringLiteral("The desktop did not open a remote input session%1.").arg(why));
                return;
            }
            m_session = session;
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
    const uint generation = m_generation;
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("SelectDevices"),
        {QVariant::fromValue(QDBusObjectPath(m_session))}, options, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code == ResponseCode::cancelled) {
                forgetSession();
                setStage(Stage::refused, QStringLiteral("The desktop refused a keyboard for Dictora%1.").arg(errorSuffix(results)));
                return;
            }
            if (code != ResponseCode::success) {
                forgetSession();
                setStage(Stage::idle, kClosedUnanswered);
                return;
            }
            startSession();
        });
}

void RemoteDesktopKeystrokeSender::startSession()
{
    const uint generation = m_generation;
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("Start"),
        {QVariant::fromValue(QDBusObjectPath(m_session)), QString()}, {}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code != ResponseCode::success) {
                forgetSession();
                // A kept token is single-use and spent either way.
                if (m_tokens.save)
                    m_tokens.save({});
                if (code == ResponseCode::cancelled) {
                    setStage(Stage::refused, QStringLiteral("Typing was not allowed in the desktop's dialog, so Dictora "
                                                            "cannot paste. Allow it to paste your dictations."));
                } else {
                    setStage(Stage::idle, results.contains(QStringLiteral("error"))
                            ? QStringLiteral("The desktop could not start remote input%1.").arg(errorSuffix(results))
                            : kClosedUnanswered);
                }
                return;
            }
            const uint devices = results.value(QStringLiteral("devices")).toUInt();
            if ((devices & kKeyboard) == 0) {
                forgetSession();
                setStage(Stage::refused, QStringLiteral("The desktop granted no keyboard, so Dictora cannot paste."));
                return;
            }
            // No token when the user did not ask the desktop to remember:
            // the next run asks again, and the kept one is spent.
            if (m_tokens.save)
                m_tokens.save(results.value(QStringLiteral("restore_token")).toString());
            setStage(Stage::started);
            // Mutter makes the session's keyboard on its first key event and
            // drops what arrives meanwhile, which lost the first paste after
            // launch: a lone Shift tap first; pastes wait until it has settled.
            m_priming = true;
            const uint primed = m_generation;
            sendNext({{Evdev::leftShift, true}, {Evdev::leftShift, false}}, {}, [this, primed](const QString &) {
                QTimer::singleShot(kKeyboardSettleMs, this, [this, primed] {
                    if (primed != m_generation)
                        return;
                    m_priming = false;
                    if (std::optional<Queued> queued = std::exchange(m_queued, std::nullopt))
                        type(queued->keystroke, std::move(queued->done));
                });
            });
        });
}

bool RemoteDesktopKeystrokeSender::send(PasteKeystroke keystroke)
{
    sendThen(keystroke, {});
    return m_stage == Stage::started || m_stage == Stage::starting;
}

void RemoteDesktopKeystrokeSender::sendThen(PasteKeystroke keystroke, Sent done)
{
    switch (m_stage) {
    case Stage::started:
        if (!m_priming) {
            type(keystroke, std::move(done));
            return;
        }
        break; // queued until the session's keyboard has settled
    case Stage::idle:
    case Stage::refused:
        // Refused or unanswered earlier: a paste is when the user expects the question.
        start();
        break;
    case Stage::starting:
    case Stage::failed:
        break;
    }
    if (m_stage != Stage::starting && m_stage != Stage::started) {
        if (done)
            done(m_failureReason);
        return;
    }
    if (m_queued && m_queued->done)
        m_queued->done(QStringLiteral("A newer paste took this one's place."));
    m_queued = Queued{keystroke, std::move(done)};
}

void RemoteDesktopKeystrokeSender::type(PasteKeystroke keystroke, Sent done)
{
    sendNext(keySequence(keystroke, m_keyForV), {}, std::move(done));
}

// One key event, then the rest once the desktop has replied.
void RemoteDesktopKeystrokeSender::sendNext(QList<KeyTransition> rest, QList<int> held, Sent done)
{
    if (rest.isEmpty()) {
        if (done)
            done({});
        return;
    }
    const KeyTransition t = rest.takeFirst();
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
        QLatin1String(kInterface), QStringLiteral("NotifyKeyboardKeycode"));
    call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap() << t.code << uint(t.down ? 1 : 0);
    auto *watcher = new QDBusPendingCallWatcher(m_connection.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
        [this, watcher, t, rest = std::move(rest), held = std::move(held), done = std::move(done)]() mutable {
            watcher->deleteLater();
            const QDBusPendingReply<> reply = *watcher;
            if (reply.isError()) {
                releaseAll(held);
                if (done)
                    done(QStringLiteral("The desktop did not take the paste keystroke (%1).").arg(reply.error().message()));
                return;
            }
            if (t.down)
                held.append(t.code);
            else
                held.removeAll(t.code);
            sendNext(std::move(rest), std::move(held), std::move(done));
        });
}

// Keys left down would turn the user's next keys into shortcuts.
void RemoteDesktopKeystrokeSender::releaseAll(const QList<int> &held)
{
    if (m_session.isEmpty())
        return;
    for (auto it = held.crbegin(); it != held.crend(); ++it) {
        QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
            QLatin1String(kInterface), QStringLiteral("NotifyKeyboardKeycode"));
        call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap() << *it << uint(0);
        m_connection.asyncCall(call);
    }
}

void RemoteDesktopKeystrokeSender::forgetSession(bool close)
{
    ++m_generation;
    m_priming = false;
    if (!m_session.isEmpty()) {
        m_connection.disconnect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
            QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
        // Its handle is ours to reuse only once the portal has let it go.
        if (close) {
            m_connection.asyncCall(QDBusMessage::createMethodCall(QLatin1String(kService), m_session,
                QLatin1String(kSessionInterface), QStringLiteral("Close")));
        }
    }
    m_session.clear();
}

void RemoteDesktopKeystrokeSender::onSessionClosed()
{
    forgetSession(false);
    setStage(Stage::idle, QStringLiteral("The desktop ended Dictora's remote input session."));
}

} // namespace dictora::portal
