#pragma once

#include "platform/portal/KeyboardLayout.h"
#include "shortcut/GlobalShortcut.h"

#include <QString>

#include <optional>

namespace dictora::portal {

// The shortcut in the desktops' shared trigger syntax: modifiers CTRL, ALT,
// SHIFT, LOGO and an xkb keysym name joined by "+" ("CTRL+ALT+k", "grave").
// Nothing for a key the syntax cannot name.
std::optional<QString> preferredTrigger(const GlobalShortcut &shortcut);

// The same physical key as each of the user's layouts names it, without
// repeats: "grave" for us, "dead_circumflex" for de, "Cyrillic_io" for ru.
// A desktop matches a trigger by the symbol the active layout types, so a key
// below Escape needs one trigger per symbol to fire on every layout.
QStringList preferredTriggers(const GlobalShortcut &shortcut, const QList<LayoutName> &layouts);

// The physical key as GNOME's accelerator syntax also takes it: its X keycode
// in hexadecimal ("0x31" for the key below Escape). Mutter matches that on
// every layout alike, so one trigger serves them all and none is ever
// re-grabbed when the layouts change (a grab released after a layout change
// can stay behind in mutter and hold the key against every later grab).
std::optional<QString> keycodeTrigger(const GlobalShortcut &shortcut);

// The key's xkb keysym name on a US layout ("grave", "k", "F5").
std::optional<QString> keysymName(int evdevCode);

} // namespace dictora::portal
