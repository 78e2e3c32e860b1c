#pragma once

#include "platform/PermissionProbe.h"
#include "shortcut/GlobalShortcut.h"

#include <QString>

#include <functional>

namespace dictora {

// What the application shell asks of the desktop beyond the services of a
// dictation: the consent and binding steps of onboarding and the shortcut
// sheet, and the permission checks behind them. One per session, made with
// the other backends; the shell never learns which desktop answers. Main
// thread only, except permissions(), whose checks run off it.
class DesktopIntegration {
public:
    // For the shortcut sheet: what the desktop reports as bound, or what to
    // add to its configuration, with a button where Dictora can do it itself.
    // Empty for backends that grab the key themselves.
    struct BindingHint {
        QString text;
        QString actionLabel;
        std::function<void()> action;
    };
    using Advice = std::function<void(const QString &advice)>;

    virtual ~DesktopIntegration() = default;

    virtual BindingHint bindingHint(const GlobalShortcut &shortcut, bool holdToTalk) = 0;
    // The button text for a check's action (PermissionAction); empty for an
    // unknown or empty action.
    virtual QString permissionActionLabel(const QString &action) const = 0;
    // Does what the button promises without waiting on the desktop: `done`
    // runs later on the main thread with what to tell the user when Dictora
    // cannot do it itself (a line to add, a command to run), else empty.
    virtual void runPermissionAction(const QString &action, const GlobalShortcut &current, bool holdToTalk,
        Advice done) = 0;
    // The checks the onboarding polls; thread-safe.
    virtual PermissionProbe &permissions() = 0;
};

} // namespace dictora
