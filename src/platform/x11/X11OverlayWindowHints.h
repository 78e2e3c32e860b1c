#pragma once

#include "platform/OverlayWindowHints.h"

#include <QAbstractNativeEventFilter>

#include <memory>

namespace dictora::x11 {

class XConnection;

// EWMH states (sticky, above, skip taskbar and pager) set before the first
// map, and an empty input shape on the window and on the frame the window
// manager wraps it in. One private connection for the hints' lifetime; every
// request runs under an error trap, so a window gone early costs nothing.
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

    std::unique_ptr<XConnection> m_connection;
    quintptr m_window = 0;
    bool m_filterInstalled = false;
    bool m_hasShape = false;
};

} // namespace dictora::x11
