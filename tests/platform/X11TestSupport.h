#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

// Helpers that drive the test X server from outside the code under test:
// a keyboard typing through XTEST on its own connection, and a second
// client that can hold a key grab. Xlib stays out of this header.
struct _XDisplay;

namespace dictora::test::x11 {

class FakeKeyboard {
public:
    FakeKeyboard();
    ~FakeKeyboard();
    FakeKeyboard(const FakeKeyboard &) = delete;
    FakeKeyboard &operator=(const FakeKeyboard &) = delete;

    bool isOpen() const;
    // X keycode of a keysym name ("Control_L", "v", "F5"); 0 if the layout has none.
    int keycode(const char *keysymName) const;
    static int keycodeFromEvdev(int evdev) { return evdev + 8; }

    void press(int keycode);
    void release(int keycode);
    // Holds the modifiers, taps the key, lets go in reverse order.
    void chord(const QStringList &modifierKeysyms, int keycode);

    void setCapsLock(bool on);
    void setNumLock(bool on);
    // Moves Num_Lock to another modifier bit (3 = Mod3); returns false if busy.
    bool moveNumLockTo(int modifierIndex);
    // A window's title (_NET_WM_NAME, else WM_NAME).
    QString windowTitle(quint64 window) const;

    // The modifier index Num_Lock has now (usually 4 = Mod2), or -1.
    int numLockModifierIndex() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// A second X client holding a passive grab, as another program would.
class ForeignGrab {
public:
    // modifiers: X11 state bits (ShiftMask = 1, ControlMask = 4, Mod1Mask = 8, Mod4Mask = 64).
    ForeignGrab(int keycode, unsigned int modifiers);
    ~ForeignGrab();
    bool isHeld() const { return m_held; }

private:
    void *m_display = nullptr;
    int m_keycode;
    unsigned int m_modifiers;
    bool m_held = false;
};

// A program started for a test and always stopped with it.
class ChildProgram {
public:
    ChildProgram(const QString &program, const QStringList &arguments);
    ~ChildProgram();
    bool waitStarted();
    qint64 pid() const { return m_process.processId(); }
    QString errorOutput();

private:
    QProcess m_process;
};

// Asks the server to unmap a window that does not exist: one BadWindow error
// on that connection.
void unmapMissingWindow(_XDisplay *display);

} // namespace dictora::test::x11
