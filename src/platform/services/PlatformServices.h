#pragma once

#include "platform/ClipboardReadWatcher.h"
#include "platform/KeystrokeSender.h"
#include "platform/OverlayWindowHints.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/WindowTracker.h"

#include <memory>

namespace dictora {

// The desktop backends for this session. Each is usable even when the
// desktop lacks what it needs: it then fails with a reason for the user.
namespace Platform {
std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent = nullptr);
std::unique_ptr<WindowTracker> createWindowTracker();
std::unique_ptr<KeystrokeSender> createKeystrokeSender();
std::unique_ptr<PermissionProbe> createPermissionProbe();
// Needs the application object to exist (it watches this process's clipboard).
std::unique_ptr<ClipboardReadWatcher> createClipboardReadWatcher(QObject *parent = nullptr);
// Needs the application object too (it asks which Qt platform runs the windows).
std::unique_ptr<OverlayWindowHints> createOverlayWindowHints();
} // namespace Platform

} // namespace dictora
