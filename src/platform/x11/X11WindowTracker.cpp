#include "platform/x11/X11WindowTracker.h"

#include "platform/x11/XConnection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace dictora::x11 {

X11WindowTracker::X11WindowTracker()
    : m_connection(std::make_unique<XConnection>())
{
}

X11WindowTracker::~X11WindowTracker() = default;

unsigned long X11WindowTracker::activeWindow() const
{
    if (!m_connection->isOpen())
        return 0;
    const auto value = m_connection->property32(m_connection->rootWindow(),
                                                m_connection->atom("_NET_ACTIVE_WINDOW"), XA_WINDOW);
    if (!value || value->empty())
        return 0;
    return value->front();
}

std::optional<FrontmostWindow> X11WindowTracker::frontmostWindow()
{
    const unsigned long window = activeWindow();
    if (window == 0)
        return std::nullopt;
    Display *display = m_connection->display();

    FrontmostWindow result;
    result.window = WindowHandle{window};
    {
        XErrorTrap trap(display);
        XClassHint hint{nullptr, nullptr};
        if (XGetClassHint(display, window, &hint)) {
            result.instanceName = QString::fromLocal8Bit(hint.res_name);
            result.windowClass = QString::fromLocal8Bit(hint.res_class);
            if (hint.res_name)
                XFree(hint.res_name);
            if (hint.res_class)
                XFree(hint.res_class);
        }
        if (trap.sync() != 0)
            return std::nullopt; // the window vanished while we looked
    }
    const auto pid = m_connection->property32(window, m_connection->atom("_NET_WM_PID"), XA_CARDINAL);
    if (pid && !pid->empty())
        result.processId = static_cast<qint32>(pid->front());

    if (auto name = m_desktopEntries.nameForWindow(result.windowClass, result.instanceName))
        result.applicationName = *name;
    else
        result.applicationName = result.windowClass;
    return result;
}

bool X11WindowTracker::isActive(WindowHandle window)
{
    return !window.isNull() && activeWindow() == window.value;
}

void X11WindowTracker::requestActivation(WindowHandle window)
{
    if (window.isNull() || !m_connection->isOpen())
        return;
    Display *display = m_connection->display();
    // A window gone meanwhile gives BadWindow: trapped, and the caller's poll
    // of isActive() simply never sees it active.
    XErrorTrap trap(display);
    const auto sendToRoot = [&](const char *message, unsigned long about, long first) {
        XEvent event{};
        event.xclient.type = ClientMessage;
        event.xclient.serial = 0;
        event.xclient.send_event = True;
        event.xclient.display = display;
        event.xclient.window = about;
        event.xclient.message_type = m_connection->atom(message);
        event.xclient.format = 32;
        event.xclient.data.l[0] = first;
        event.xclient.data.l[1] = CurrentTime;
        XSendEvent(display, m_connection->rootWindow(), False, SubstructureRedirectMask | SubstructureNotifyMask,
                   &event);
    };
    // Window managers such as openbox activate a window on another desktop
    // without going there: switch to its desktop first, as a pager would.
    const auto desktop = m_connection->property32(window.value, m_connection->atom("_NET_WM_DESKTOP"), XA_CARDINAL);
    const auto current = m_connection->property32(m_connection->rootWindow(),
        m_connection->atom("_NET_CURRENT_DESKTOP"), XA_CARDINAL);
    constexpr unsigned long kAllDesktops = 0xFFFFFFFF;
    if (desktop && !desktop->empty() && current && !current->empty() && desktop->front() != kAllDesktops
        && desktop->front() != current->front())
        sendToRoot("_NET_CURRENT_DESKTOP", m_connection->rootWindow(), long(desktop->front()));
    sendToRoot("_NET_ACTIVE_WINDOW", window.value, 2); // source: a pager, so focus-stealing rules do not apply
    trap.sync();
}

} // namespace dictora::x11
