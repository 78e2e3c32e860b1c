#include "platform/services/PlatformServices.h"

#include "platform/x11/X11Platform.h"

namespace dictora::Platform {

// X11 is the only desktop backend so far; under Wayland the program runs
// through XWayland until native backends slot in here.
std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent)
{
    return X11Platform::createShortcutBackend(parent);
}

std::unique_ptr<WindowTracker> createWindowTracker()
{
    return X11Platform::createWindowTracker();
}

std::unique_ptr<KeystrokeSender> createKeystrokeSender()
{
    return X11Platform::createKeystrokeSender();
}

std::unique_ptr<PermissionProbe> createPermissionProbe()
{
    return X11Platform::createPermissionProbe();
}

std::unique_ptr<ClipboardReadWatcher> createClipboardReadWatcher(QObject *parent)
{
    return X11Platform::createClipboardReadWatcher(parent);
}

std::unique_ptr<OverlayWindowHints> createOverlayWindowHints()
{
    return X11Platform::createOverlayWindowHints();
}

} // namespace dictora::Platform
