#pragma once

#include "shortcut/GlobalShortcut.h"

#include <QString>

#include <optional>

namespace dictora::portal {

// The shortcut in the desktops' shared trigger syntax: modifiers CTRL, ALT,
// SHIFT, LOGO and an xkb keysym name joined by "+" ("CTRL+ALT+k", "grave").
// Nothing for a key the syntax cannot name.
std::optional<QString> preferredTrigger(const GlobalShortcut &shortcut);

// The key's xkb keysym name on a US layout ("grave", "k", "F5").
std::optional<QString> keysymName(int evdevCode);

} // namespace dictora::portal
