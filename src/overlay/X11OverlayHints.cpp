#include "overlay/X11OverlayHints.h"

#include <QGuiApplication>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/shape.h>
#include <xcb/xproto.h>

#include <memory>
#include <vector>

namespace dictora::overlay {

namespace {

struct DisplayCloser {
    void operator()(Display *display) const { XCloseDisplay(display); }
};

} // namespace

bool applyX11OverlayHints(quintptr window)
{
    if (window == 0 || QGuiApplication::platformName() != QLatin1String("xcb"))
        return false;
    // A private connection: properties live on the server, so any client may set them.
    std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(nullptr));
    if (!display)
        return false;
    Display *dpy = display.get();
    const auto atom = [dpy](const char *name) { return XInternAtom(dpy, name, False); };

    // Before mapping, a client sets _NET_WM_STATE itself; Qt merges its own
    // states (above, stays-on-top) into what it finds there when it shows the window.
    std::vector<Atom> states{atom("_NET_WM_STATE_STICKY"), atom("_NET_WM_STATE_SKIP_TASKBAR"),
        atom("_NET_WM_STATE_SKIP_PAGER"), atom("_NET_WM_STATE_ABOVE")};
    XChangeProperty(dpy, Window(window), atom("_NET_WM_STATE"), XA_ATOM, 32, PropModeAppend,
        reinterpret_cast<const unsigned char *>(states.data()), int(states.size()));

    // 0xFFFFFFFF: on all desktops.
    const long allDesktops = 0xFFFFFFFFL;
    XChangeProperty(dpy, Window(window), atom("_NET_WM_DESKTOP"), XA_CARDINAL, 32, PropModeReplace,
        reinterpret_cast<const unsigned char *>(&allDesktops), 1);
    XSync(dpy, False);
    return true;
}

bool clearX11InputShape(quintptr window)
{
    if (window == 0 || QGuiApplication::platformName() != QLatin1String("xcb"))
        return false;
    std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(nullptr));
    if (!display)
        return false;
    int eventBase = 0;
    int errorBase = 0;
    if (!XShapeQueryExtension(display.get(), &eventBase, &errorBase))
        return false;
    XShapeCombineRectangles(display.get(), Window(window), ShapeInput, 0, 0, nullptr, 0, ShapeSet, Unsorted);
    XSync(display.get(), False);
    return true;
}

bool X11FrameClickThrough::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (eventType != "xcb_generic_event_t" || !message)
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) != XCB_REPARENT_NOTIFY)
        return false;
    const auto *reparent = static_cast<const xcb_reparent_notify_event_t *>(message);
    if (quintptr(reparent->window) != m_window)
        return false;
    // Back under the root (unmanaged) there is no frame to fix.
    xcb_window_t root = XCB_NONE;
    if (std::unique_ptr<Display, DisplayCloser> display{XOpenDisplay(nullptr)})
        root = xcb_window_t(DefaultRootWindow(display.get()));
    if (reparent->parent == root || reparent->parent == XCB_NONE)
        return false;
    // Qt set the empty input region before the manager was listening; set it
    // again so a manager that follows client input regions copies it to the
    // frame (and keeps doing so through resizes). For one that does not, the
    // frame's own region is emptied too.
    clearX11InputShape(m_window);
    clearX11InputShape(quintptr(reparent->parent));
    return false;
}

} // namespace dictora::overlay
