#pragma once

#include "platform/KeystrokeSender.h"

#include <memory>

namespace dictora::x11 {

class XConnection;

// Synthetic key events through the XTEST extension: the X server treats them
// as typed on the keyboard, so they reach the focused window like real keys.
class X11KeystrokeSender final : public KeystrokeSender {
public:
    X11KeystrokeSender();
    ~X11KeystrokeSender() override;

    // Any key down right now; lock states (CapsLock, NumLock) are no held keys.
    bool anyKeyHeld() override;
    bool send(PasteKeystroke keystroke) override;
    QString failureReason() const override;

private:
    std::unique_ptr<XConnection> m_connection;
    bool m_hasXTest = false;
};

} // namespace dictora::x11
