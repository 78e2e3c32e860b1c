#pragma once

#include <QString>

namespace dictora::portal {

struct LayoutName {
    QString layout; // "us", "de"
    QString variant; // "", "dvorak"
};

// The layout the user types with: XKB_DEFAULT_LAYOUT, else the desktop's
// first configured layout (KDE's kxkbrc, GNOME's input sources), else the
// system keyboard file. Empty when none says.
LayoutName activeLayout();

// The physical key (evdev code) that types "v" in that layout's first
// group; the US position when the layout is unknown or has no "v".
int evdevCodeForV(const LayoutName &layout);
int evdevCodeForV();

} // namespace dictora::portal
