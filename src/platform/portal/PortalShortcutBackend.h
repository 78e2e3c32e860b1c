#pragma once

#include "platform/ShortcutBackend.h"
#include "platform/portal/PortalRequest.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <optional>

namespace dictora::portal {

// The desktop's GlobalShortcuts portal. The desktop keeps the binding across
// runs (under our app id), so a run first lists what it already knows and
// binds only what is missing; the desktop may show a dialog for that, so
// install() answers with what is known now and installationChanged() fires
// once the desktop has answered. Key down and key up arrive as Activated and
// Deactivated. A failure is retried after a growing pause, never at once.
class PortalShortcutBackend final : public ShortcutBackend {
    Q_OBJECT
public:
    static constexpr auto kInterface = "org.freedesktop.portal.GlobalShortcuts";
    static constexpr auto kShortcutId = "dictate";
    static constexpr auto kSessionToken = "dictora_shortcuts";

    enum class Stage { idle, creatingSession, listing, binding, bound, keyless, refused, failed };

    // The triggers that describe a shortcut to the desktop, one per symbol
    // the key types on the user's layouts; by default the US name alone.
    // Nothing while the layouts are still being read: binding waits for them.
    using Triggers = std::function<std::optional<QStringList>(const GlobalShortcut &)>;

    explicit PortalShortcutBackend(QDBusConnection connection, Triggers triggers = {}, QObject *parent = nullptr);
    ~PortalShortcutBackend() override;

    // The portal's GlobalShortcuts version; 0 when the desktop has none.
    uint portalVersion() const { return m_version; }

    bool install(const GlobalShortcut &shortcut) override;
    bool verifyInstalled(const GlobalShortcut &shortcut) const override;
    void uninstall() override;
    QString failureReason() const override { return m_failureReason; }
    QString attentionAction() const override;
    // Opens a session of its own, lists, and closes it: nothing is bound.
    void reportBinding(const GlobalShortcut &shortcut, std::function<void(BindingReport)> done) override;
    bool isAwaitingDesktop() const override
    {
        return m_stage == Stage::creatingSession || m_stage == Stage::listing || m_stage == Stage::binding;
    }

    // The user asks for the desktop's dialog again: after a refusal, for a
    // shortcut listed without a key, or to change the key where the desktop
    // offers its own dialog for that.
    void askAgain();

    // The user's layouts changed: when they call for other triggers, those
    // are bound in a fresh session, opened once the old one has closed (one
    // entry per trigger, so the desktop keeps the others as they are).
    void triggersChanged();

    Stage stage() const { return m_stage; }
    // How the desktop says the shortcut is triggered ("`" or "Ctrl+Alt+K");
    // empty until it has said so.
    QString triggerDescription() const { return m_triggerDescription; }

private Q_SLOTS:
    void onActivated(const QDBusMessage &message);
    void onDeactivated(const QDBusMessage &message);
    void onShortcutsChanged(const QDBusMessage &message);
    void onSessionClosed();

private:
    void begin(bool forceBind);
    void createSession();
    void listShortcuts();
    void bindShortcuts();
    // Takes our entries' trigger descriptions from a result list; false
    // when the list holds none of them.
    bool takeShortcuts(const QVariant &shortcuts);
    void settle();
    void fail(Stage stage, const QString &reason);
    void forgetSession();
    // `then` runs once the desktop has closed it (at once without a session).
    void closeSession(std::function<void()> then = {});
    bool isOurs(const QDBusMessage &message) const;
    QString idFor(const QString &trigger) const;

    QDBusConnection m_connection;
    Triggers m_triggers;
    uint m_version = 0;
    Stage m_stage = Stage::idle;
    QString m_session;
    std::optional<GlobalShortcut> m_wanted;
    QStringList m_ids; // the entries this run binds: one per trigger
    QStringList m_idTriggers; // beside m_ids
    QStringList m_listed; // our entries the desktop lists
    bool m_boundThisRun = false;
    bool m_askAgain = false; // the user asked: bind even what is listed
    bool m_rebinding = false; // bound, now adding a new layout's trigger
    bool m_recheck = false; // layouts changed while the desktop was answering
    QString m_triggerDescription;
    QString m_failureReason;
    bool m_keyDown = false;
    uint m_generation = 0; // answers to an abandoned install are dropped
    QTimer m_retry;
    int m_retryDelayMs = 0;
};

} // namespace dictora::portal
