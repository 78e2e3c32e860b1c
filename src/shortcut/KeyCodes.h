#pragma once

#include <QtGlobal>

#include <cstdint>
#include <optional>

// The stored shortcut keeps the platform-neutral key codes of the settings
// format (the macOS virtual key codes: backtick = 50, V = 9, F5 = 96, ...).
// These map them to physical Linux keys and back; both directions are exact
// inverses over one fixed table (US ANSI positions).
namespace dictora::KeyCodes {
// Platform-neutral key code of the stored shortcut to Linux evdev code (X keycode = evdev + 8), and back.
std::optional<int> evdevFromKeyCode(std::int64_t keyCode);
std::optional<std::int64_t> keyCodeFromEvdev(int evdevCode);
// From the scan code Qt reports for a key event: an XKB keycode (evdev + 8)
// on X11 and on Wayland alike.
std::optional<std::int64_t> keyCodeFromXkbKeycode(quint32 xkbKeycode);
} // namespace dictora::KeyCodes
