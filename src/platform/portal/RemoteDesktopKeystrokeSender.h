#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/portal/EvdevKeystroke.h"

#include <QDBusConnection>
#include <QObject>

#include <atomic>
#include <functional>
#include <optional>

namespace dictora::portal {

// Types the paste keystroke through the desktop's RemoteDesktop portal
// (KDE Plasma, GNOME). The desktop asks the user; where the user lets it
// remember the answer, its restore token is kept so later runs start without
// asking. Each key event waits for the desktop's reply before the next goes
// out: fired all at once they arrive out of order, or not at all.
class RemoteDesktopKeystrokeSender final : public QObject, public KeystrokeSender {
    Q_OBJECT
public:
    static constexpr auto kInterface = "org.freedesktop.portal.RemoteDesktop";
    static constexpr auto kSessionToken = "dictora_typing";
    static constexpr uint kKeyboard = 1;
    static constexpr uint kPersistUntilRevoked = 2;

    // An empty token forgets the kept one.
    struct TokenStore {
        std::function<QString()> load;
        std::function<void(const QString &)> save;
    };

    enum class Stage { idle, starting, started, refused, failed };
    // What the user answered, as far as the desktop has said.
    enum class Consent { unknown, allowed, refused };

    RemoteDesktopKeystrokeSender(QDBusConnection connection, TokenStore tokens, int keyForV = Evdev::v,
        QObject *parent = nullptr);
    ~RemoteDesktopKeystrokeSender() override;

    uint portalVersion() const { return m_version; }
    Stage stage() const { return m_stage; }
    // Safe from any thread.
    Consent consent() const { return m_consent.load(); }
    // Whether a restore token is kept, so starting asks nobody.
    bool hasKeptConsent() const { return m_tokens.load && !m_tokens.load().isEmpty(); }

    // Opens the session (the desktop may ask the user); a keystroke asked
    // for meanwhile waits for it.
    void start();

    bool send(PasteKeystroke keystroke) override;
    void sendThen(PasteKeystroke keystroke, Sent done) override;
    // The portal does not tell which keys the user holds.
    bool anyKeyHeld() override { return false; }
    QString failureReason() const override { return m_failureReason; }
    bool pastesWithVOnEveryLayout() const override { return m_vOnEveryLayout; }
    void setVOnEveryLayout(bool yes) { m_vOnEveryLayout = yes; }

Q_SIGNALS:
    void stageChanged(dictora::portal::RemoteDesktopKeystrokeSender::Stage stage);

private Q_SLOTS:
    void onSessionClosed();

private:
    struct Queued {
        PasteKeystroke keystroke;
        Sent done;
    };

    void selectDevices();
    void startSession();
    void setStage(Stage stage, const QString &reason = {});
    void type(PasteKeystroke keystroke, Sent done);
    void sendNext(QList<KeyTransition> rest, QList<int> held, Sent done);
    void releaseAll(const QList<int> &held);
    void forgetSession(bool close = true);

    QDBusConnection m_connection;
    TokenStore m_tokens;
    int m_keyForV;
    bool m_vOnEveryLayout = true;
    uint m_version = 0;
    Stage m_stage = Stage::idle;
    std::atomic<Consent> m_consent{Consent::unknown};
    QString m_session;
    QString m_failureReason;
    std::optional<Queued> m_queued;
    uint m_generation = 0; // key events of an ended session are not followed up
};

} // namespace dictora::portal
