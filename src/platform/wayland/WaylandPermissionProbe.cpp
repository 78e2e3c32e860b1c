#include "platform/wayland/WaylandPermissionProbe.h"

#include "platform/ShortcutBackend.h"
#include "platform/wayland/WaylandConnection.h"

namespace dictora::wayland {

PermissionCheck WaylandPermissionProbe::accessibility(const ShortcutBackend *shortcut)
{
    const WaylandConnection connection(false);
    if (!connection.isOpen())
        return PermissionCheck::needsAttention(connection.failureReason());
    struct Need {
        const char *interface;
        const char *purpose;
    };
    static const Need needs[] = {
        {"zwlr_foreign_toplevel_manager_v1", "tell which window to paste into"},
        {"zwp_virtual_keyboard_manager_v1", "type the paste keystroke"},
    };
    for (const Need &need : needs) {
        if (!connection.global(need.interface)) {
            return PermissionCheck::needsAttention(
                QStringLiteral("The compositor does not offer %1, so Dictora cannot %2.")
                    .arg(QLatin1String(need.interface), QLatin1String(need.purpose)));
        }
    }
    if (shortcut && !shortcut->failureReason().isEmpty())
        return PermissionCheck::needsAttention(shortcut->failureReason());
    return PermissionCheck::granted();
}

} // namespace dictora::wayland
