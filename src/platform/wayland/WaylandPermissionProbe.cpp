#include "platform/wayland/WaylandPermissionProbe.h"

#include "platform/ShortcutBackend.h"
#include "platform/wayland/WaylandConnection.h"

namespace dictora::wayland {

WaylandPermissionProbe::WaylandPermissionProbe() = default;
WaylandPermissionProbe::~WaylandPermissionProbe() = default;

PermissionCheck WaylandPermissionProbe::accessibility(const ShortcutBackend *shortcut)
{
    QMutexLocker locker(&m_lock);
    if (m_connection && m_connection->isOpen())
        m_connection->roundtrip();
    if (!m_connection || !m_connection->isOpen())
        m_connection = std::make_unique<WaylandConnection>(false);
    const WaylandConnection &connection = *m_connection;
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
