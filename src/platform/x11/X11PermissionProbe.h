#pragma once

#include "platform/PermissionProbe.h"

namespace dictora::x11 {

// Nothing on X11 needs granting; what can be missing is the desktop's
// support: XTEST for typing, an EWMH window manager for the active window,
// and the shortcut's key (another program may hold it).
class X11PermissionProbe final : public PermissionProbe {
public:
    PermissionCheck accessibility(const ShortcutBackend *shortcut) override;
};

} // namespace dictora::x11
