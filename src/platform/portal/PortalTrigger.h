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

// The key's xkb keysym name on a US layout ("grave", "k", "F5").
std::optional<QString> keysymName(int evdevCode);

} // namespace dictora::portal
