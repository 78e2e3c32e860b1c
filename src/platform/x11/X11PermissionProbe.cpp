#include "platform/x11/X11PermissionProbe.h"

#include "platform/ShortcutBackend.h"
#include "platform/x11/XConnection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <algorithm>

namespace dictora::x11 {

X11PermissionProbe::X11PermissionProbe() = default;
X11PermissionProbe::~X11PermissionProbe() = default;

PermissionCheck X11PermissionProbe::accessibility(const ShortcutBackend *shortcut)
{
    QMutexLocker locker(&m_lock);
    if (!m_connection || !m_connection->isOpen())
        m_connection = std::make_unique<XConnection>();
    const XConnection &connection = *m_connection;
    if (!connection.isOpen())
        return PermissionCheck::needsAttention(connection.unavailableReason());

    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!XTestQueryExtension(connection.display(), &eventBase, &errorBase, &major, &minor)) {
        return PermissionCheck::needsAttention(
            QStringLiteral("The X server does not offer the XTEST extension, so Dictora cannot type "
                           "the paste keystroke."));
    }

    const unsigned long activeWindow = connection.atom("_NET_ACTIVE_WINDOW");
    const auto supported = connection.property32(connection.rootWindow(),
                                                 connection.atom("_NET_SUPPORTED"), XA_ATOM);
    if (!supported || std::find(supported->begin(), supported->end(), activeWindow) == supported->end()) {
        return PermissionCheck::needsAttention(
            QStringLiteral("The window manager does not publish the active window "
                           "(_NET_ACTIVE_WINDOW), so Dictora cannot tell which application to paste "
                           "into. Use a window manager that follows the EWMH standard."));
    }

    if (shortcut && !shortcut->failureReason().isEmpty())
        return PermissionCheck::needsAttention(shortcut->failureReason());
    return PermissionCheck::granted();
}

} // namespace dictora::x11
