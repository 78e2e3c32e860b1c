#pragma once

#include "platform/PermissionProbe.h"

#include <QMutex>

#include <memory>

namespace dictora::x11 {

// Nothing on X11 needs granting; what can be missing is the desktop's
// support: XTEST for typing, an EWMH window manager for the active window,
// and the shortcut's key (another program may hold it).
class XConnection;

class X11PermissionProbe final : public PermissionProbe {
public:
    X11PermissionProbe();
    ~X11PermissionProbe() override;
    PermissionCheck accessibility(const ShortcutBackend *shortcut) override;

private:
    // Polled every second during onboarding, from pool threads: one
    // connection for every check, used by one check at a time.
    QMutex m_lock;
    std::unique_ptr<XConnection> m_connection;
};

} // namespace dictora::x11
