#pragma once

#include "history/TranscriptRecord.h"
#include "platform/KeystrokeSender.h"
#include "platform/WindowTracker.h"

#include <optional>

namespace dictora {

// The application a dictation is meant for: what the journal records, plus
// the window to go back to, which is kept in memory only.
struct PasteTarget {
    TargetApplication application;
    WindowHandle window;

    friend bool operator==(const PasteTarget &, const PasteTarget &) = default;
};

// The journal's view of a window: its application name ("Unknown" when the
// window names none), class as the identifier, and pid.
PasteTarget pasteTargetFor(const FrontmostWindow &window);

// Which keystroke makes the application with this window class paste.
PasteKeystroke pasteKeystrokeForWindowClass(const QString &windowClass);

// The same for a target: by its class, else by its program's name (a
// terminal started under an app id of the user's own), else, where the
// desktop names nothing, Shift+Insert, which editors and terminals alike
// paste from (the clipboard, the primary selection: both are set).
PasteKeystroke pasteKeystrokeFor(const PasteTarget &target);

} // namespace dictora
