#pragma once

#include "platform/PermissionProbe.h"
#include "platform/portal/DesktopBinding.h"

#include <functional>

namespace dictora::portal {

// Which mechanisms this Wayland session uses, so the check asks only for
// what they need.
struct SessionMechanisms {
    enum class Shortcut { portal, gnomeKeybinding, compositorBinding };
    enum class Keystroke { remoteDesktop, uinput, compositorKeyboard };

    Desktop desktop = Desktop::other;
    Shortcut shortcut = Shortcut::portal;
    Keystroke keystroke = Keystroke::remoteDesktop;
    // What the user answered the desktop's question about typing (allowed
    // once the desktop started a session with a keyboard). Called off the
    // GUI thread: must be thread-safe.
    enum class Typing { unknown, allowed, refused };
    std::function<Typing()> typingConsent;
    // The bus the portal is on; empty for the session bus.
    QString busAddress;
};

// Says what a Wayland desktop still needs from the user: the portal's
// consent, a shortcut binding, or access to /dev/uinput. Thread-safe: every
// check uses its own bus connection and processes.
class DesktopPermissionProbe final : public PermissionProbe {
public:
    explicit DesktopPermissionProbe(SessionMechanisms mechanisms) : m_mechanisms(std::move(mechanisms)) {}

    PermissionCheck accessibility(const ShortcutBackend *shortcut) override;

    const SessionMechanisms &mechanisms() const { return m_mechanisms; }

private:
    PermissionCheck shortcutCheck(const ShortcutBackend *shortcut) const;
    PermissionCheck keystrokeCheck() const;

    SessionMechanisms m_mechanisms;
};

} // namespace dictora::portal
