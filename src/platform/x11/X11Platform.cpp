#include "platform/x11/X11Platform.h"

#include "platform/x11/X11ClipboardReadWatcher.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11OverlayWindowHints.h"
#include "platform/x11/X11PermissionProbe.h"
#include "platform/x11/X11ShortcutBackend.h"
#include "platform/x11/X11WindowTracker.h"

namespace dictora::X11Platform {

std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent)
{
    return std::make_unique<x11::X11ShortcutBackend>(parent);
}

std::unique_ptr<WindowTracker> createWindowTracker()
{
    return std::make_unique<x11::X11WindowTracker>();
}

std::unique_ptr<KeystrokeSender> createKeystrokeSender()
{
    return std::make_unique<x11::X11KeystrokeSender>();
}

std::unique_ptr<PermissionProbe> createPermissionProbe()
{
    return std::make_unique<x11::X11PermissionProbe>();
}

std::unique_ptr<ClipboardReadWatcher> createClipboardReadWatcher(QObject *parent)
{
    return std::make_unique<x11::X11ClipboardReadWatcher>(parent);
}

std::unique_ptr<OverlayWindowHints> createOverlayWindowHints()
{
    return std::make_unique<x11::X11OverlayWindowHints>();
}

} // namespace dictora::X11Platform
