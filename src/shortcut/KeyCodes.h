#pragma once

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
} // namespace dictora::KeyCodes
