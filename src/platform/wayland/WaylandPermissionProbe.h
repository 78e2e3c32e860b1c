#pragma once

#include "platform/PermissionProbe.h"

namespace dictora::wayland {

// Nothing on a wlroots compositor is granted by the user; what can be
// missing is the compositor's support for the protocols the paste needs.
// Each check opens its own short connection, so it may run on any thread.
class WaylandPermissionProbe final : public PermissionProbe {
public:
    PermissionCheck accessibility(const ShortcutBackend *shortcut) override;
};

} // namespace dictora::wayland
