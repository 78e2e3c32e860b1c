#pragma once

#include <QString>

#include <functional>


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

    // Whether some key is physically held right now: the user's own
    // Ctrl/Alt/Shift would turn the paste into another command, and while the
    // shortcut key is down its grab sends every key, the paste too, to us.
    // Quick; the paste service polls it until the keys are up.
    virtual bool anyKeyHeld() = 0;
    // Types the keystroke into whatever window has the keyboard focus.
    virtual bool send(PasteKeystroke keystroke) = 0;
    // The same, answering once the desktop has taken every key event: `done`
    // gets an error for the user, empty when all of them arrived. Senders
    // whose desktop answers later (a portal) override it; the rest type at
    // once. `done` runs on the caller's thread, at most once, never after
    // the sender is gone.
    using Sent = std::function<void(const QString &error)>;
    virtual void sendThen(PasteKeystroke keystroke, Sent done);
    // False where the key that types "v" depends on which keyboard layout
    // group is active when the keys arrive (a non-Latin layout among the
    // user's): then only a paste key every layout shares will do.
    virtual bool pastesWithVOnEveryLayout() const { return true; }
    // Why the sender cannot type, in words for the user; empty when it can.
    virtual QString failureReason() const = 0;
};

} // namespace dictora
