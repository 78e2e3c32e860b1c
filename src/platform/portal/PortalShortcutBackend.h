#pragma once

#include "platform/ShortcutBackend.h"
#include "platform/portal/PortalRequest.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>

#include <optional>

namespace dictora::portal {

// The desktop's GlobalShortcuts portal. Binding is asynchronous: the desktop
// may show its own dialog in which the user confirms (or changes) the key, so
// install() answers with what is known now and installationChanged() fires
// once the desktop has answered. Key down and key up arrive as Activated and
// Deactivated.
class PortalShortcutBackend final : public ShortcutBackend {
    Q_OBJECT
public:
    static constexpr auto kInterface = "org.freedesktop.portal.GlobalShortcuts";
    static constexpr auto kShortcutId = "dictate";

    enum class Stage { idle, creatingSession, listing, binding, bound, refused, failed };

    explicit PortalShortcutBackend(QDBusConnection connection, QObject *parent = nullptr);
    ~PortalShortcutBackend() override;

    // The portal's GlobalShortcuts version; 0 when the desktop has none.
    uint portalVersion() const { return m_version; }

    bool install(const GlobalShortcut &shortcut) override;
    bool verifyInstalled(const GlobalShortcut &shortcut) const override;
    void uninstall() override;
    QString failureReason() const override { return m_failureReason; }

    Stage stage() const { return m_stage; }
    // How the desktop says the shortcut is triggered ("Ctrl+Alt+K"); empty
    // until it has said so.
    QString triggerDescription() const { return m_triggerDescription; }

private Q_SLOTS:
    void onActivated(const QDBusMessage &message);
    void onDeactivated(const QDBusMessage &message);
    void onShortcutsChanged(const QDBusMessage &message);
    void onSessionClosed();

private:
    void createSession();
    void listShortcuts();
    void bindShortcuts();
    // Takes the trigger description of our shortcut from a result list;
    // false when the list does not hold it.
    bool takeShortcuts(const QVariant &shortcuts);
    void fail(Stage stage, const QString &reason);
    void closeSession();
    bool isOurs(const QDBusMessage &message) const;

    QDBusConnection m_connection;
    uint m_version = 0;
    Stage m_stage = Stage::idle;
    QString m_session;
    std::optional<GlobalShortcut> m_wanted;
    std::optional<GlobalShortcut> m_bound;
    QString m_triggerDescription;
    QString m_failureReason;
    bool m_keyDown = false;
    uint m_generation = 0; // answers to an abandoned install are dropped
};

} // namespace dictora::portal
