#pragma once

#include <QList>
#include <QString>

namespace dictora::portal {

struct LayoutName {
    QString layout; // "us", "de"
    QString variant; // "", "dvorak"
    friend bool operator==(const LayoutName &, const LayoutName &) = default;
};

// Every layout the user switches between, in the desktop's order (the same
// sources as activeLayout()). Reads files or runs gsettings: not on the GUI
// thread.
QList<LayoutName> configuredLayouts();

// The xkb keysym name the physical key (evdev code) types on the layout's
// base level ("grave", "dead_circumflex", "Cyrillic_io"); empty when the
// layout is unknown or the key types nothing.
QString keysymNameOn(int evdevCode, const LayoutName &layout);

// Whether the layout types a Latin "v" somewhere: where it does not (Russian,
// Greek), Ctrl+V depends on which group is active at the moment of the paste.
bool typesLatinV(const LayoutName &layout);

// The layout the user types with: XKB_DEFAULT_LAYOUT, else the desktop's
// first configured layout (KDE's kxkbrc, GNOME's input sources), else the
// system keyboard file. Empty when none says.
LayoutName activeLayout();

// The physical key (evdev code) that types "v" in that layout's first
// group; the US position when the layout is unknown or has no "v".
int evdevCodeForV(const LayoutName &layout);
int evdevCodeForV();

} // namespace dictora::portal
