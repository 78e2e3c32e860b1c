#pragma once

#include "platform/WindowTracker.h"
#include "platform/x11/XConnection.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QProcess>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

#include <initializer_list>
#include <memory>

// The test X server driven from outside the code under test: XTEST typing, a
// second client's grabs, real applications to paste into. No Xlib in this header.
struct _XDisplay;

namespace dictora::test::x11 {

class FakeKeyboard {
public:
    bool isOpen() const { return m_x.isOpen(); }
    // X keycode of a keysym name ("Control_L", "v", "F5"); 0 if the layout has none.
    int keycode(const char *keysymName) const;
    static int keycodeFromEvdev(int evdev) { return evdev + 8; }

    void press(int keycode);
    void release(int keycode);
    // Holds the modifiers, taps the key, lets go in reverse order.
    void chord(const QStringList &modifierKeysyms, int keycode);

    // Caps Lock and Num Lock together.
    void setLocks(bool on);
    // Moves Num_Lock to another modifier bit (3 = Mod3); returns false if busy.
    bool moveNumLockTo(int modifierIndex);
    // A window's title (_NET_WM_NAME).
    QString windowTitle(quint64 window) const;

    // The modifier index Num_Lock has now (usually 4 = Mod2), or -1.
    int numLockModifierIndex() const;

private:
    dictora::x11::XConnection m_x;
};

// A second X client holding a passive grab, as another program would.
class ForeignGrab {
public:
    // modifiers: X11 state bits (ShiftMask = 1, ControlMask = 4, Mod1Mask = 8, Mod4Mask = 64).
    ForeignGrab(int keycode, unsigned int modifiers);
    ~ForeignGrab();
    bool isHeld() const { return m_held; }

private:
    dictora::x11::XConnection m_x;
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

// A window's 32-bit property items (atoms, windows, cardinals); window 0 is the root.
QList<quint64> windowProperty(quint64 window, const char *name);
// Asks the tracker for the window and waits, serving the event loop, until it is active.
inline bool activateAndWait(WindowTracker &tracker, WindowHandle window, int timeoutMs)
{
    if (window.isNull())
        return false;
    if (!tracker.isActive(window))
        tracker.requestActivation(window);
    return QTest::qWaitFor([&] { return tracker.isActive(window); }, timeoutMs);
}
// The window that has the focus (_NET_ACTIVE_WINDOW), 0 when none.
quint64 activeWindow();
// _NET_WM_PID of a window, 0 when it has none.
qint64 windowPid(quint64 window);

// l3afpad on a file: it takes keys once focused, and reads back by saving.
class TextEditor {
public:
    TextEditor(FakeKeyboard &keyboard, const QString &file);
    ~TextEditor();
    // Starts it and waits until it is the active window and takes keys.
    bool start(QString *why);
    qint64 pid() const;
    quint64 window() const { return m_window; }
    // Saves (Ctrl+S) until the file holds expected; actual gets what it held.
    bool readBack(const QString &expected, QString *actual);

private:
    FakeKeyboard &m_keyboard;
    QString m_file;
    std::unique_ptr<ChildProgram> m_program;
    quint64 m_window = 0;
};

// xterm running cat into a file: every key it gets ends up there.
class Terminal {
public:
    Terminal(FakeKeyboard &keyboard, const QString &file);
    ~Terminal();
    // Starts it and waits until it takes keys.
    bool start(QString *why);
    qint64 pid() const;
    // What cat received, without the probe keys sent while waiting for it.
    QString received() const;
    // Waits until it received expected.
    bool waitFor(const QString &expected, int timeoutMs) const;

private:
    FakeKeyboard &m_keyboard;
    QString m_file;
    std::unique_ptr<ChildProgram> m_program;
};

// Unmaps a window that does not exist: one BadWindow error on that connection.
void unmapMissingWindow(_XDisplay *display);

// main() of a test run under tests/support/x11/with-x that drives the named programs.
template <typename Test>
int testMain(int argc, char **argv, std::initializer_list<const char *> programs = {})
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qgetenv("QT_QPA_PLATFORM") != "xcb")
        return rigMissing("needs an X display: run under tests/support/x11/with-x");
    for (const char *program : programs) {
        if (QStandardPaths::findExecutable(QLatin1String(program)).isEmpty())
            return rigMissing(qPrintable(QLatin1String(program) + QLatin1String(" is not installed")));
    }
    QApplication app(argc, argv);
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace dictora::test::x11
