#pragma once

#include "platform/ClipboardReadWatcher.h"
#include "platform/KeystrokeSender.h"
#include "platform/OverlayWindowHints.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/WindowTracker.h"

#include <memory>

namespace dictora::X11Platform {
std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent);
std::unique_ptr<WindowTracker> createWindowTracker();
std::unique_ptr<KeystrokeSender> createKeystrokeSender();
std::unique_ptr<PermissionProbe> createPermissionProbe();
std::unique_ptr<ClipboardReadWatcher> createClipboardReadWatcher(QObject *parent);
std::unique_ptr<OverlayWindowHints> createOverlayWindowHints();
} // namespace dictora::X11Platform
