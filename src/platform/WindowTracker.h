#pragma once

#include <QString>
#include <QtGlobal>

#include <optional>

namespace dictora {

// Names one top-level window for the tracker that made it. Lives in memory
// only: it means nothing to another session or after a restart.
struct WindowHandle {
    quint64 value = 0;

    bool isNull() const { return value == 0; }
    friend bool operator==(WindowHandle, WindowHandle) = default;
};

struct FrontmostWindow {
    QString applicationName; // desktop entry name when one matches, else the class
    QString windowClass;     // the application's identity (WM_CLASS class part on X11)
    QString instanceName;
    qint32 processId = 0; // 0 when the window does not say
    WindowHandle window;

    friend bool operator==(const FrontmostWindow &, const FrontmostWindow &) = default;
};

// Called on the GUI thread: every member answers from what the desktop
// already published and never waits on a reply the desktop may be slow to give.
class WindowTracker {
public:
    virtual ~WindowTracker();

    // The window the user is working in, whoever owns it.
    virtual std::optional<FrontmostWindow> frontmostWindow() = 0;
    virtual bool isActive(WindowHandle window) = 0;
    // Asks the window manager to raise and focus the window and returns at
    // once; whoever needs it active polls isActive().
    virtual void requestActivation(WindowHandle window) = 0;

    // The frontmost window unless it belongs to this process: our own
    // windows are never a place to paste into.
    std::optional<FrontmostWindow> frontmostOtherApplication();
};

} // namespace dictora
