#pragma once

#include <QString>

#include <chrono>

namespace dictora {

// The keystroke that makes an application paste: most take Ctrl+V, terminal
// emulators Ctrl+Shift+V, and xterm-like terminals Shift+Insert (which pastes
// the primary selection).
enum class PasteKeystroke { controlV, controlShiftV, shiftInsert };

// "ctrl+v", "ctrl+shift+v", "shift+insert": for log lines.
QString keystrokeName(PasteKeystroke keystroke);

class KeystrokeSender {
public:
    virtual ~KeystrokeSender();

    // Waits, at most `timeout`, until no key is physically held: the user's own
    // Ctrl/Alt/Shift would turn the paste into another command, and while the
    // shortcut key is down its grab sends every key, the paste too, to us.
    // False when some key was still down at the deadline.
    virtual bool waitForKeysReleased(std::chrono::milliseconds timeout) = 0;
    // Types the keystroke into whatever window has the keyboard focus.
    virtual bool send(PasteKeystroke keystroke) = 0;
    // Why the sender cannot type, in words for the user; empty when it can.
    virtual QString failureReason() const = 0;
};

} // namespace dictora
