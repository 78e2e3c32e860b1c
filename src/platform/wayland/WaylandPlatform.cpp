#include "platform/wayland/WaylandPlatform.h"

#include "platform/wayland/WaylandClipboard.h"
#include "platform/wayland/WaylandKeystrokeSender.h"
#include "platform/wayland/WaylandPermissionProbe.h"
#include "platform/wayland/WaylandWindowTracker.h"

namespace dictora::WaylandPlatform {

namespace {
template <typename Base, typename T>
std::unique_ptr<Base> ifUsable(std::unique_ptr<T> backend, QString *why)
{
    if (backend->isUsable())
        return backend;
    if (why)
        *why = backend->failureReason();
    return nullptr;
}
} // namespace

std::unique_ptr<WindowTracker> createWindowTracker(QString *why)
{
    return ifUsable<WindowTracker>(std::make_unique<wayland::WaylandWindowTracker>(), why);
}

std::unique_ptr<KeystrokeSender> createKeystrokeSender(QString *why)
{
    return ifUsable<KeystrokeSender>(std::make_unique<wayland::WaylandKeystrokeSender>(), why);
}

std::unique_ptr<Clipboard> createClipboard(QObject *parent, QString *why)
{
    return ifUsable<Clipboard>(std::make_unique<wayland::WaylandClipboard>(parent), why);
}

bool offers(const char *interface)
{
    const wayland::WaylandConnection connection(false);
    return connection.isOpen() && connection.global(interface);
}

std::unique_ptr<PermissionProbe> createPermissionProbe(QString *why)
{
    const wayland::WaylandConnection connection(false);
    if (!connection.isOpen()) {
        if (why)
            *why = connection.failureReason();
        return nullptr;
    }
    // Where the window tracking protocol is missing (GNOME, KDE) another
    // desktop's backend knows better what to ask of the user.
    if (!connection.global("zwlr_foreign_toplevel_manager_v1")) {
        if (why)
            *why = QStringLiteral("the compositor is not wlroots-based");
        return nullptr;
    }
    return std::make_unique<wayland::WaylandPermissionProbe>();
}

} // namespace dictora::WaylandPlatform
