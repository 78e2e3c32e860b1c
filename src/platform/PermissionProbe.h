#pragma once

#include <QString>

namespace dictora {

class ShortcutBackend;

struct PermissionCheck {
    bool authorized = false;
    QString reason; // for the user; empty when authorized
    // What the button beside the reason does (see PermissionAction); empty
    // when retrying is all there is to do.
    QString action;

    static PermissionCheck granted() { return {true, {}, {}}; }
    static PermissionCheck needsAttention(const QString &why, const QString &action = {}) { return {false, why, action}; }
};

// Button actions a check can ask for.
namespace PermissionAction {
inline constexpr auto portalConsent = "portal-consent";           // ask the desktop to allow typing
inline constexpr auto portalShortcut = "portal-shortcut";         // ask the desktop to bind the shortcut
inline constexpr auto gnomeKeybinding = "gnome-keybinding";       // add the GNOME custom keybinding
inline constexpr auto desktopBinding = "desktop-binding";         // show the line for the compositor's config
inline constexpr auto uinputRule = "uinput-rule";                 // install the udev rule for /dev/uinput
} // namespace PermissionAction

// What the desktop must offer before dictation can take the shortcut, know
// the target window and type into it. A check may be slow (it asks the
// desktop), so it runs off the GUI thread: implementations are thread-safe
// and share no connection with the GUI thread.
class PermissionProbe {
public:
    virtual ~PermissionProbe() = default;

    // `shortcut`, when given, contributes its last install result: a key
    // another program already owns needs the user's attention too. Off the
    // GUI thread pass nullptr and combine the backend's failureReason() there.
    virtual PermissionCheck accessibility(const ShortcutBackend *shortcut) = 0;
};

} // namespace dictora
