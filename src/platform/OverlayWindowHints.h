#pragma once

#include <QtGlobal>

namespace dictora {

// What the floating indicator asks of the desktop beyond Qt's own window
// flags: shown on every desktop, kept out of task bars and pagers, and
// letting clicks through its whole area, a window manager's frame included.
class OverlayWindowHints {
public:
    virtual ~OverlayWindowHints();

    // For a native top-level window that has not been shown yet. False when
    // this desktop takes no such hints; the window then simply lacks them.
    virtual bool apply(quintptr window) = 0;
};

} // namespace dictora
