#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/portal/DesktopBinding.h"
#include "platform/portal/DesktopPermissionProbe.h"
#include "platform/portal/RemoteDesktopKeystrokeSender.h"

#include <memory>

// Factories for the session-choice table: each backend talks to the user's
// session bus and fails with a reason where the desktop lacks what it needs.
namespace dictora::PortalPlatform {

// Makes sure a desktop file named after the app id exists (the portals
// accept an app id only with one), writing a hidden one that runs this binary
// for a build that is not installed; returns its path, or empty with `error`.
QString ensureDesktopEntry(QString *error = nullptr);

// Registers the app id with the portal on the session bus before any other
// portal call. Once per process; later calls do nothing. The answer goes to
// the runtime log.
void registerWithPortal();

// Registers, then asks the portal on the thread pool which of the interfaces
// Dictora uses it offers, while the rest of start-up goes on.
void probeSoon();

// Whether the desktop's portal offers the interface: probeSoon()'s answer,
// waited for if it is still out, or a short blocking call without it.
bool hasGlobalShortcutsPortal();
bool hasRemoteDesktopPortal();

std::unique_ptr<ShortcutBackend> createPortalShortcutBackend(QObject *parent = nullptr);
std::unique_ptr<ShortcutBackend> createDesktopBindingShortcutBackend(portal::Desktop desktop, QObject *parent = nullptr);
std::unique_ptr<KeystrokeSender> createUinputKeystrokeSender();
std::unique_ptr<PermissionProbe> createPermissionProbe(portal::SessionMechanisms mechanisms);

// For the shortcut sheet: what the desktop reports as bound (portal), or what
// to add to its configuration (desktop binding), with a button where Dictora
// can do it itself. Empty for backends that grab the key themselves.
struct BindingHint {
    QString text;
    QString actionLabel;
    std::function<void()> action;
};
BindingHint bindingHint(ShortcutBackend &backend, const GlobalShortcut &shortcut, bool holdToTalk);

// Opens the desktop's typing session now where the keystroke needs one.
void prepareTyping(KeystrokeSender *keystrokes);

// The button text for a check's action (PermissionAction), in the
// onboarding's capitals; empty for an unknown or empty action.
QString permissionActionLabel(const QString &action);
// Does what the button promises. `keystrokes` may be null (then the portal
// asks for consent at the first paste). Returns what to tell the user when
// Dictora cannot do it itself (the line to add, the command to run), else empty.
QString runPermissionAction(const QString &action, ShortcutBackend *shortcut, KeystrokeSender *keystrokes,
    const GlobalShortcut &current, bool holdToTalk);

} // namespace dictora::PortalPlatform
