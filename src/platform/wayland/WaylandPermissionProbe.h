#pragma once

#include "platform/PermissionProbe.h"

#include <QMutex>

#include <memory>

namespace dictora::wayland {

// Nothing on a wlroots compositor is granted by the user; what can be
// missing is the compositor's support for the protocols the paste needs.
// Checks run on pool threads, one at a time, over one connection kept for
// them all (a round trip brings its globals up to date).
class WaylandConnection;

class WaylandPermissionProbe final : public PermissionProbe {
public:
    WaylandPermissionProbe();
    ~WaylandPermissionProbe() override;
    PermissionCheck accessibility(const ShortcutBackend *shortcut) override;

private:
    QMutex m_lock;
    std::unique_ptr<WaylandConnection> m_connection;
};

} // namespace dictora::wayland
