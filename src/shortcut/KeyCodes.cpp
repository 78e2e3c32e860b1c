#include "shortcut/KeyCodes.h"

#include <QHash>

namespace dictora::KeyCodes {

namespace {

struct KeyPair {
    std::int64_t keyCode; // settings key code
    int evdev;            // linux/input-event-codes.h
};

// One row per physical key; a key code and an evdev code appear at most once.
constexpr KeyPair kKeys[] = {
    // Letters.
    {0, 30},  // A
    {11, 48}, // B
    {8, 46},  // C
    {2, 32},  // D
    {14, 18}, // E
    {3, 33},  // F
    {5, 34},  // G
    {4, 35},  // H
    {34, 23}, // I
    {38, 36}, // J
    {40, 37}, // K
    {37, 38}, // L
    {46, 50}, // M
    {45, 49}, // N
    {31, 24}, // O
    {35, 25}, // P
    {12, 16}, // Q
    {15, 19}, // R
    {1, 31},  // S
    {17, 20}, // T
    {32, 22}, // U
    {9, 47},  // V
    {13, 17}, // W
    {7, 45},  // X
    {16, 21}, // Y
    {6, 44},  // Z
    // Digit row.
    {29, 11}, // 0
    {18, 2},  // 1
    {19, 3},  // 2
    {20, 4},  // 3
    {21, 5},  // 4
    {23, 6},  // 5
    {22, 7},  // 6
    {26, 8},  // 7
    {28, 9},  // 8
    {25, 10}, // 9
    // Punctuation.
    {50, 41}, // ` grave, left of 1
    {27, 12}, // -
    {24, 13}, // =
    {33, 26}, // [
    {30, 27}, // ]
    {42, 43}, // backslash
    {41, 39}, // ;
    {39, 40}, // '
    {43, 51}, // ,
    {47, 52}, // .
    {44, 53}, // /
    {10, 86}, // ISO key between left Shift and Z
    // Editing and navigation.
    {36, 28},   // Return
    {48, 15},   // Tab
    {49, 57},   // Space
    {51, 14},   // Delete (BackSpace)
    {53, 1},    // Esc
    {114, 110}, // Help, where PC keyboards have Insert
    {115, 102}, // Home
    {116, 104}, // Page Up
    {117, 111}, // Forward Delete
    {119, 107}, // End
    {121, 109}, // Page Down
    {123, 105}, // Left
    {124, 106}, // Right
    {125, 108}, // Down
    {126, 103}, // Up
    {110, 127}, // context menu
    // Function keys.
    {122, 59},  // F1
    {120, 60},  // F2
    {99, 61},   // F3
    {118, 62},  // F4
    {96, 63},   // F5
    {97, 64},   // F6
    {98, 65},   // F7
    {100, 66},  // F8
    {101, 67},  // F9
    {109, 68},  // F10
    {103, 87},  // F11
    {111, 88},  // F12
    {105, 183}, // F13
    {107, 184}, // F14
    {113, 185}, // F15
    {106, 186}, // F16
    {64, 187},  // F17
    {79, 188},  // F18
    {80, 189},  // F19
    {90, 190},  // F20
    // Keypad.
    {82, 82}, // 0
    {83, 79}, // 1
    {84, 80}, // 2
    {85, 81}, // 3
    {86, 75}, // 4
    {87, 76}, // 5
    {88, 77}, // 6
    {89, 71}, // 7
    {91, 72}, // 8
    {92, 73}, // 9
    {65, 83},  // .
    {67, 55},  // *
    {69, 78},  // +
    {71, 69},  // Clear, where PC keyboards have Num Lock
    {75, 98},  // /
    {76, 96},  // Enter
    {78, 74},  // -
    {81, 117}, // =
};

struct Tables {
    QHash<std::int64_t, int> toEvdev;
    QHash<int, std::int64_t> fromEvdev;
};

const Tables &tables()
{
    static const Tables built = [] {
        Tables t;
        for (const KeyPair &pair : kKeys) {
            t.toEvdev.insert(pair.keyCode, pair.evdev);
            t.fromEvdev.insert(pair.evdev, pair.keyCode);
        }
        return t;
    }();
    return built;
}

} // namespace

std::optional<int> evdevFromKeyCode(std::int64_t keyCode)
{
    const auto it = tables().toEvdev.constFind(keyCode);
    if (it == tables().toEvdev.constEnd())
        return std::nullopt;
    return *it;
}

std::optional<std::int64_t> keyCodeFromEvdev(int evdevCode)
{
    const auto it = tables().fromEvdev.constFind(evdevCode);
    if (it == tables().fromEvdev.constEnd())
        return std::nullopt;
    return *it;
}

std::optional<std::int64_t> keyCodeFromXkbKeycode(quint32 xkbKeycode)
{
    constexpr quint32 kXkbOffset = 8;
    if (xkbKeycode <= kXkbOffset)
        return std::nullopt;
    return keyCodeFromEvdev(int(xkbKeycode - kXkbOffset));
}

} // namespace dictora::KeyCodes
