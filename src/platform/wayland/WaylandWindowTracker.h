#pragma once

#include "platform/DesktopEntryIndex.h"
#include "platform/WindowTracker.h"
#include "platform/wayland/WaylandConnection.h"

#include <map>
#include <memory>

struct wl_seat;
struct zwlr_foreign_toplevel_manager_v1;
struct zwlr_foreign_toplevel_handle_v1;

namespace dictora::wayland {

// The focused window of a wlroots compositor, from the foreign toplevel
// protocol: the compositor tells every window's app id, title and whether it
// is activated, and activates one on request. All answers come from state
// the compositor already sent, so queries never wait.
class WaylandWindowTracker final : public WindowTracker {
public:
    WaylandWindowTracker();
    ~WaylandWindowTracker() override;

    // False when the compositor lacks the protocol; the reason says why.
    bool isUsable() const;
    QString failureReason() const;

    std::optional<FrontmostWindow> frontmostWindow() override;
    bool isActive(WindowHandle window) override;
    void requestActivation(WindowHandle window) override;

    struct Toplevel {
        quint64 id = 0;
        QString appId;
        QString title;
        bool activated = false;
        // Received since the last "done"; applied together.
        QString pendingAppId, pendingTitle;
        bool pendingActivated = false;
        bool pendingState = false;
        zwlr_foreign_toplevel_handle_v1 *handle = nullptr;
    };

private:
    friend struct ToplevelEvents;
    Toplevel *find(WindowHandle window);

    std::unique_ptr<WaylandConnection> m_connection;
    wl_seat *m_seat = nullptr;
    zwlr_foreign_toplevel_manager_v1 *m_manager = nullptr;
    std::map<zwlr_foreign_toplevel_handle_v1 *, Toplevel> m_toplevels;
    quint64 m_nextId = 1;
    DesktopEntryIndex m_desktopEntries;
};

} // namespace dictora::wayland
