#pragma once

#include <QAbstractNativeEventFilter>
#include <QtGlobal>

namespace dictora::overlay {

// Marks a not-yet-mapped top-level X window as shown on every desktop and
// kept out of task bars and pagers. Returns false when not running on X11
// or the display cannot be opened; the window then simply lacks the hints.
bool applyX11OverlayHints(quintptr window);

// Makes a window's input region empty, so clicks reach whatever is below.
bool clearX11InputShape(quintptr window);

// Window managers wrap a managed window in a frame. A frame whose input
// region is not emptied as well stops clicks (openbox does so when the
// client's region was set before it started managing the window). This
// watches for the window being reparented into its frame and fixes that.
class X11FrameClickThrough : public QAbstractNativeEventFilter {
public:
    explicit X11FrameClickThrough(quintptr window) : m_window(window) {}
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

private:
    quintptr m_window;
};

} // namespace dictora::overlay
