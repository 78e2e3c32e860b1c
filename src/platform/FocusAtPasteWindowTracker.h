#pragma once

#include "platform/WindowTracker.h"

namespace dictora {

// For desktops that tell applications nothing about their windows (GNOME on
// Wayland): the target is whichever window has focus when the paste goes
// out. It has no name and no handle, so nothing is re-activated and the
// journal records the application as unknown rather than a guess.
class FocusAtPasteWindowTracker final : public WindowTracker {
public:
    std::optional<FrontmostWindow> frontmostWindow() override { return FrontmostWindow{}; }
    bool isActive(WindowHandle) override { return false; }
    void requestActivation(WindowHandle) override {}
};

} // namespace dictora
