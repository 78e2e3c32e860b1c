#pragma once

#include "platform/OverlayWindowHints.h"

#include <QAbstractNativeEventFilter>

#include <array>
#include <cstdint>
#include <vector>

struct xcb_connection_t;

namespace dictora::x11 {

// EWMH states (sticky, above, skip taskbar and pager) set before the first
// map, and an empty input shape on the window and on the frame the window
// manager wraps it in. The requests go out on Qt's own connection, so they
// reach the server before Qt maps the window, and nothing waits for them: an
// error (a window gone early) is dropped unread.
class X11OverlayWindowHints final : public OverlayWindowHints, private QAbstractNativeEventFilter {
public:
    X11OverlayWindowHints();
    ~X11OverlayWindowHints() override;

    bool apply(quintptr window) override;

    // Makes a window's input region empty, so clicks reach whatever is below.
    bool clearInputShape(quintptr window);

private:
    // Openbox copies the client's input region to its frame only when the
    // region changes after it manages the window: on the reparent into the
    // frame, set it again and empty the frame's own.
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

    enum Atom { wmState, wmStateSticky, wmStateSkipTaskbar, wmStateSkipPager, wmStateAbove, wmDesktop, atomCount };
    std::uint32_t atom(Atom which);
    bool isRoot(std::uint32_t window) const;

    xcb_connection_t *m_connection = nullptr;
    std::array<unsigned int, atomCount> m_atomRequests{}; // asked for at construction, read at first use
    std::array<std::uint32_t, atomCount> m_atoms{};
    bool m_atomsRead = false;
    std::vector<quintptr> m_windows; // each window given the hints: the indicator, its preview
    bool m_filterInstalled = false;
};

} // namespace dictora::x11
