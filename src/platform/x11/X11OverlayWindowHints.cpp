#include "platform/x11/X11OverlayWindowHints.h"

#include "platform/x11/XConnection.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/shape.h>
#include <xcb/xproto.h>

#include <vector>

namespace dictora::x11 {

X11OverlayWindowHints::X11OverlayWindowHints()
{
    // Only where Qt itself draws on X: a window id means nothing elsewhere.
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        return;
    m_connection = std::make_unique<XConnection>();
    if (!m_connection->isOpen()) {
        m_connection.reset();
        return;
    }
    int eventBase = 0;
    int errorBase = 0;
    m_hasShape = XShapeQueryExtension(m_connection->display(), &eventBase, &errorBase);
}

X11OverlayWindowHints::~X11OverlayWindowHints()
{
    if (m_filterInstalled && QCoreApplication::instance())
        QCoreApplication::instance()->removeNativeEventFilter(this);
}

bool X11OverlayWindowHints::apply(quintptr window)
{
    if (window == 0 || !m_connection)
        return false;
    Display *display = m_connection->display();
    const Window xWindow = Window(window);
    XErrorTrap trap(display);

    // Before mapping, a client sets _NET_WM_STATE itself; Qt merges its own
    // states (above, stays-on-top) into what it finds there when it shows the window.
    const std::vector<Atom> states{m_connection->atom("_NET_WM_STATE_STICKY"),
        m_connection->atom("_NET_WM_STATE_SKIP_TASKBAR"), m_connection->atom("_NET_WM_STATE_SKIP_PAGER"),
        m_connection->atom("_NET_WM_STATE_ABOVE")};
    XChangeProperty(display, xWindow, m_connection->atom("_NET_WM_STATE"), XA_ATOM, 32, PropModeAppend,
        reinterpret_cast<const unsigned char *>(states.data()), int(states.size()));
    // 0xFFFFFFFF: on all desktops.
    const long allDesktops = 0xFFFFFFFFL;
    XChangeProperty(display, xWindow, m_connection->atom("_NET_WM_DESKTOP"), XA_CARDINAL, 32, PropModeReplace,
        reinterpret_cast<const unsigned char *>(&allDesktops), 1);
    if (trap.sync() != 0)
        return false;

    m_window = window;
    if (!m_filterInstalled && QCoreApplication::instance()) {
        QCoreApplication::instance()->installNativeEventFilter(this);
        m_filterInstalled = true;
    }
    return true;
}

bool X11OverlayWindowHints::clearInputShape(quintptr window)
{
    if (window == 0 || !m_connection || !m_hasShape)
        return false;
    Display *display = m_connection->display();
    XErrorTrap trap(display);
    XShapeCombineRectangles(display, Window(window), ShapeInput, 0, 0, nullptr, 0, ShapeSet, Unsorted);
    return trap.sync() == 0;
}

bool X11OverlayWindowHints::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (m_window == 0 || eventType != "xcb_generic_event_t" || !message)
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) != XCB_REPARENT_NOTIFY)
        return false;
    const auto *reparent = static_cast<const xcb_reparent_notify_event_t *>(message);
    if (quintptr(reparent->window) != m_window)
        return false;
    // Back under the root (unmanaged) there is no frame to fix.
    const auto root = xcb_window_t(m_connection->rootWindow());
    if (reparent->parent == root || reparent->parent == XCB_NONE)
        return false;
    clearInputShape(m_window);
    clearInputShape(quintptr(reparent->parent));
    return false;
}

} // namespace dictora::x11
