#pragma once

#include "platform/Clipboard.h"
#include "platform/ClipboardReadWatcher.h"
#include "platform/DesktopIntegration.h"
#include "platform/KeystrokeSender.h"
#include "platform/OverlayWindowHints.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/WindowTracker.h"

#include <QProcessEnvironment>
#include <QStringList>

#include <memory>

namespace dictora {

// What kind of desktop session this process runs in, from its environment.
struct DesktopSession {
    bool wayland = false; // WAYLAND_DISPLAY set, or XDG_SESSION_TYPE=wayland
    bool x11 = false;     // an X server (XWayland included) is reachable through DISPLAY
    QString desktop;      // XDG_CURRENT_DESKTOP, lower case: "sway", "kde", "gnome", ...

    static DesktopSession fromEnvironment(const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());
};

// The desktop backends for this session. Each service has an ordered list
// of backends; the first that applies to the session and works serves it,
// the last one always does. Each is usable even when the desktop lacks what
// it needs: it then fails with a reason for the user.
namespace Platform {
// Before the application object exists: in a Wayland session with XWayland
// the windows run through it, where their placement is reliable.
void chooseQtPlatform();
// Once the application object exists: programs Dictora starts get the
// session's own choice back.
void restoreInheritedEnvironment();
// Starts asking the desktop, off the GUI thread, what the choices below
// depend on, so that they find it answered.
void probeDesktopSoon();

std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent = nullptr);
std::unique_ptr<WindowTracker> createWindowTracker();
std::unique_ptr<KeystrokeSender> createKeystrokeSender();
std::unique_ptr<PermissionProbe> createPermissionProbe();
// Onboarding's and the shortcut sheet's questions to the desktop, over the
// session's shortcut and keystroke backends (which must outlive it), with
// the session's permission checks.
std::unique_ptr<DesktopIntegration> createDesktopIntegration(ShortcutBackend &shortcut, KeystrokeSender &keystrokes);
// Needs the application object to exist (it serves this process's clipboard).
std::unique_ptr<Clipboard> createClipboard(QObject *parent = nullptr);

// Log lines, one per choice made since the last call: "platform backend
// service=paste-keystroke backend=wayland-virtual-keyboard", and for each
// backend passed over, why.
QStringList takeBackendReport();

// Needs the application object too (it asks which Qt platform runs the windows).
std::unique_ptr<OverlayWindowHints> createOverlayWindowHints();
} // namespace Platform

} // namespace dictora
