#pragma once

#include "platform/DesktopEntryIndex.h"
#include "platform/WindowTracker.h"

#include <memory>

namespace dictora::x11 {

class XConnection;

// The active window as the EWMH window manager publishes it on the root
// window (_NET_ACTIVE_WINDOW), with its owner's pid and WM_CLASS.
class X11WindowTracker final : public WindowTracker {
public:
    X11WindowTracker();
    ~X11WindowTracker() override;

    std::optional<FrontmostWindow> frontmostWindow() override;
    bool isActive(WindowHandle window) override;
    void requestActivation(WindowHandle window) override;

private:
    unsigned long activeWindow() const;

    std::unique_ptr<XConnection> m_connection;
    DesktopEntryIndex m_desktopEntries;
};

} // namespace dictora::x11
