#pragma once

#include "platform/KeystrokeSender.h"

#include <QList>

namespace dictora::portal {

// Linux input event codes of the keys a paste needs.
namespace Evdev {
inline constexpr int leftCtrl = 29;
inline constexpr int leftShift = 42;
inline constexpr int v = 47; // where V sits on a US layout
inline constexpr int insert = 110;
} // namespace Evdev

struct KeyTransition {
    int code = 0;
    bool down = false;
    friend bool operator==(const KeyTransition &, const KeyTransition &) = default;
};

// Modifiers down, key down, key up, modifiers up in reverse order.
// `keyForV` is the physical key that types "v" in the active layout.
QList<KeyTransition> keySequence(PasteKeystroke keystroke, int keyForV = Evdev::v);

} // namespace dictora::portal
