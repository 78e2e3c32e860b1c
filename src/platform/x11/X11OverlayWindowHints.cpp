#include "platform/x11/X11OverlayWindowHints.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <xcb/shape.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace dictora::x11 {

namespace {

constexpr std::array<const char *, 6> kAtomNames{"_NET_WM_STATE", "_NET_WM_STATE_STICKY",
    "_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER", "_NET_WM_STATE_ABOVE", "_NET_WM_DESKTOP"};

// A request whose error, if any, nobody reads: checked, so the error does not
// reach Qt's handler as a warning, and discarded, so xcb drops it on arrival.
void forget(xcb_connection_t *connection, xcb_void_cookie_t cookie)
{
    xcb_discard_reply(connection, cookie.sequence);
}

} // namespace

X11OverlayWindowHints::X11OverlayWindowHints()
{
    // Only where Qt itself draws on X: a window id means nothing elsewhere.
    auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    if (!x11 || !x11->connection())
        return;
    m_connection = x11->connection();
    for (std::size_t i = 0; i < kAtomNames.size(); ++i)
        m_atomRequests[i] = xcb_intern_atom(m_connection, 0, std::strlen(kAtomNames[i]), kAtomNames[i]).sequence;
    xcb_prefetch_extension_data(m_connection, &xcb_shape_id);
    xcb_flush(m_connection);
}

X11OverlayWindowHints::~X11OverlayWindowHints()
{
    if (m_filterInstalled && QCoreApplication::instance())
        QCoreApplication::instance()->removeNativeEventFilter(this);
    // Replies never read must not stay queued on Qt's connection, while it lasts.
    if (m_connection && !m_atomsRead && qGuiApp) {
        for (unsigned int request : m_atomRequests)
            xcb_discard_reply(m_connection, request);
    }
}

std::uint32_t X11OverlayWindowHints::atom(Atom which)
{
    if (!m_atomsRead) {
        // Long answered by the time a window is first shown.
        m_atomsRead = true;
        for (std::size_t i = 0; i < m_atoms.size(); ++i) {
            std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
                xcb_intern_atom_reply(m_connection, xcb_intern_atom_cookie_t{m_atomRequests[i]}, nullptr), &std::free);
            m_atoms[i] = reply ? reply->atom : std::uint32_t(XCB_ATOM_NONE);
        }
    }
    return m_atoms[which];
}

bool X11OverlayWindowHints::isRoot(std::uint32_t window) const
{
    for (auto screens = xcb_setup_roots_iterator(xcb_get_setup(m_connection)); screens.rem; xcb_screen_next(&screens)) {
        if (screens.data->root == window)
            return true;
    }
    return false;
}

bool X11OverlayWindowHints::apply(quintptr window)
{
    if (window == 0 || !m_connection)
        return false;
    const auto xWindow = xcb_window_t(window);
    // Before mapping, a client sets _NET_WM_STATE itself; Qt merges its own
    // states (above, stays-on-top) into what it finds there when it shows the window.
    const std::array<std::uint32_t, 4> states{
        atom(wmStateSticky), atom(wmStateSkipTaskbar), atom(wmStateSkipPager), atom(wmStateAbove)};
    if (atom(wmState) == XCB_ATOM_NONE)
        return false;
    forget(m_connection, xcb_change_property_checked(m_connection, XCB_PROP_MODE_APPEND, xWindow, atom(wmState),
                             XCB_ATOM_ATOM, 32, states.size(), states.data()));
    const std::uint32_t allDesktops = 0xFFFFFFFFU;
    forget(m_connection, xcb_change_property_checked(m_connection, XCB_PROP_MODE_REPLACE, xWindow, atom(wmDesktop),
                             XCB_ATOM_CARDINAL, 32, 1, &allDesktops));
    xcb_flush(m_connection);

    if (std::find(m_windows.begin(), m_windows.end(), window) == m_windows.end())
        m_windows.push_back(window);
    if (!m_filterInstalled && QCoreApplication::instance()) {
        QCoreApplication::instance()->installNativeEventFilter(this);
        m_filterInstalled = true;
    }
    return true;
}

bool X11OverlayWindowHints::clearInputShape(quintptr window)
{
    if (window == 0 || !m_connection)
        return false;
    const xcb_query_extension_reply_t *shape = xcb_get_extension_data(m_connection, &xcb_shape_id);
    if (!shape || !shape->present)
        return false;
    forget(m_connection, xcb_shape_rectangles_checked(m_connection, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_INPUT,
                             XCB_CLIP_ORDERING_UNSORTED, xcb_window_t(window), 0, 0, 0, nullptr));
    xcb_flush(m_connection);
    return true;
}

bool X11OverlayWindowHints::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (m_windows.empty() || eventType != "xcb_generic_event_t" || !message)
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) != XCB_REPARENT_NOTIFY)
        return false;
    const auto *reparent = static_cast<const xcb_reparent_notify_event_t *>(message);
    if (std::find(m_windows.begin(), m_windows.end(), quintptr(reparent->window)) == m_windows.end())
        return false;
    // Back under the root (unmanaged) there is no frame to fix.
    if (reparent->parent == XCB_NONE || isRoot(reparent->parent))
        return false;
    clearInputShape(quintptr(reparent->window));
    clearInputShape(quintptr(reparent->parent));
    return false;
}

} // namespace dictora::x11
