#pragma once

#include "platform/DesktopIntegration.h"
#include "platform/KeystrokeSender.h"
#include "platform/ShortcutBackend.h"

#include <memory>

namespace dictora::portal {

// The desktop's side of onboarding and the shortcut sheet, for every
// session: what a backend does not need (a grabbed X11 key) answers empty.
class PortalDesktopIntegration final : public DesktopIntegration {
public:
    PortalDesktopIntegration(ShortcutBackend &shortcut, KeystrokeSender &keystrokes,
        std::unique_ptr<PermissionProbe> permissions);

    BindingHint bindingHint(const GlobalShortcut &shortcut, bool holdToTalk) override;
    QString permissionActionLabel(const QString &action) const override;
    void runPermissionAction(const QString &action, const GlobalShortcut &current, bool holdToTalk, Advice done) override;
    PermissionProbe &permissions() override { return *m_permissions; }
    void prepareTyping() override;

private:
    ShortcutBackend &m_shortcut;
    KeystrokeSender &m_keystrokes;
    std::unique_ptr<PermissionProbe> m_permissions;
};

} // namespace dictora::portal
