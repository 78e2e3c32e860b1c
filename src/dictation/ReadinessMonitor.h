#pragma once

#include "core/ProductPreferences.h"
#include "core/RuntimeLog.h"
#include "dictation/DictationPorts.h"
#include "onboarding/OnboardingModel.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "shortcut/GlobalShortcut.h"

#include <QFuture>
#include <QObject>
#include <QTimer>

#include <functional>
#include <optional>
#include <vector>

namespace dictora {

// Keeps what dictation needs from the desktop in place: the global shortcut
// (installed, retried every second while it cannot be, re-verified when the
// backend reports a change) and, during onboarding, the two permissions
// (polled, asked for). Permission checks may be slow, so they run off the
// GUI thread and their last answers are cached here. Main thread only; it
// reports phase changes through its signals and writes no state itself.
class ReadinessMonitor : public QObject {
    Q_OBJECT
public:
    struct Periods {
        int shortcutRetryMs = 1000;
        int permissionPollMs = 750;
    };

    ReadinessMonitor(ShortcutBackend &shortcut, PermissionProbe &permissions, MicrophonePort &microphone,
        OnboardingModel &onboarding, ProductPreferences &preferences, Periods periods,
        QObject *parent = nullptr);
    ~ReadinessMonitor() override;

    // Installs the pending or the saved shortcut; on failure keeps retrying.
    void installCurrentShortcutSilently();
    ShortcutUpdateResult updateKeyboardShortcut(const GlobalShortcut &candidate);

    // Asks both checks again, off the GUI thread; `then` runs once the
    // answers are in onboarding().permissions(). Overlapping calls share one check.
    void refreshPermissions(std::function<void()> then = {});
    void startPermissionPolling();
    void stopPermissionPolling();
    void requestNextPermissionIfNeeded();
    // The onboarding's microphone button: opens the sound settings instead
    // when the microphone was already refused.
    void requestMicrophonePermission(const std::function<void()> &openSettings);

    // The last answers' reasons, for the onboarding screens; empty when granted.
    QString microphoneReason() const { return m_microphone.reason; }
    QString accessibilityReason() const;
    // What the button beside that reason does (PermissionAction); empty when retrying is all.
    QString accessibilityAction() const
    {
        return m_desktop && !m_desktop->authorized ? m_desktop->action : m_shortcut.attentionAction();
    }

Q_SIGNALS:
    // The shortcut is installed and verified (the phase leaves needsAccessibility).
    void shortcutInstalled();
    // It could not be installed (the phase becomes needsAccessibility).
    void shortcutMissing();
    // A shortcut change the desktop was asked to bind was refused; the old one stays.
    void shortcutUpdateRefused(const QString &reason);

private:
    void permissionsAnswered();

    ShortcutBackend &m_shortcut;
    PermissionProbe &m_permissions;
    MicrophonePort &m_microphonePort;
    OnboardingModel &m_onboarding;
    ProductPreferences &m_preferences;

    QTimer m_shortcutRetry;
    QTimer m_permissionPoll;
    std::optional<GlobalShortcut> m_pendingShortcutUpdate;
    bool m_rollbackOnRefusal = false; // the pending update waits for the desktop's answer
    std::optional<GlobalShortcut> m_loggedInstalled;
    bool m_loggedAccessibilityWait = false;

    // Cached answers. The desktop check leaves the shortcut's own grab out:
    // a refused key is the shortcut's failure, not a missing permission.
    MicrophonePort::Status m_microphone;
    std::optional<PermissionCheck> m_desktop;
    int m_answersPending = 0;
    QFuture<PermissionCheck> m_desktopCheck; // waited for on destruction: it uses the probe
    std::vector<std::function<void()>> m_refreshWaiters;
};

} // namespace dictora
