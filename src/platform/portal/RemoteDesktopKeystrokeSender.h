#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/portal/EvdevKeystroke.h"

#include <QDBusConnection>
#include <QObject>

#include <chrono>
#include <functional>
#include <optional>

namespace dictora::portal {

// Types the paste keystroke through the desktop's RemoteDesktop portal
// (KDE Plasma, GNOME). The desktop asks the user once; where the portal can
// persist that consent its restore token is kept so later runs start without
// asking again.
class RemoteDesktopKeystrokeSender final : public QObject, public KeystrokeSender {
    Q_OBJECT
public:
    static constexpr auto kInterface = "org.freedesktop.portal.RemoteDesktop";
    static constexpr uint kKeyboard = 1;
    static constexpr uint kPersistUntilRevoked = 2;

    struct TokenStore {
        std::function<QString()> load;
        std::function<void(const QString &)> save;
    };

    enum class Stage { idle, starting, started, refused, failed };

    RemoteDesktopKeystrokeSender(QDBusConnection connection, TokenStore tokens, int keyForV = Evdev::v,
        QObject *parent = nullptr);
    ~RemoteDesktopKeystrokeSender() override;

    uint portalVersion() const { return m_version; }
    Stage stage() const { return m_stage; }

    // Opens the session (the desktop may ask the user); typing before it is
    // open queues the keystroke until it is.
    void start();

    bool send(PasteKeystroke keystroke) override;
    // The portal does not tell which keys the user holds. Both forms of the
    // question are answered (no `override`) while the seam moves from the
    // blocking wait to the quick query.
    bool anyKeyHeld() { return false; }
    bool waitForKeysReleased(std::chrono::milliseconds) { return true; }
    QString failureReason() const override { return m_failureReason; }

Q_SIGNALS:
    void stageChanged(dictora::portal::RemoteDesktopKeystrokeSender::Stage stage);

private Q_SLOTS:
    void onSessionClosed();

private:
    void selectDevices();
    void startSession();
    void setStage(Stage stage, const QString &reason = {});
    void type(PasteKeystroke keystroke);

    QDBusConnection m_connection;
    TokenStore m_tokens;
    int m_keyForV;
    uint m_version = 0;
    Stage m_stage = Stage::idle;
    QString m_session;
    QString m_failureReason;
    std::optional<PasteKeystroke> m_queued;
};

} // namespace dictora::portal
