#pragma once

#include "platform/WindowTracker.h"

#include <QString>

#include <memory>

namespace dictora::KdePlatform {

// KWin's tracker, or nothing with the reason where KWin does not answer on
// the session bus or refuses the script.
std::unique_ptr<WindowTracker> createWindowTracker(QString *why);

} // namespace dictora::KdePlatform
