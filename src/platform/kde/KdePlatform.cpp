#include "platform/kde/KdePlatform.h"

#include "platform/kde/KWinWindowTracker.h"

namespace dictora::KdePlatform {

std::unique_ptr<WindowTracker> createWindowTracker(QString *why)
{
    auto tracker = std::make_unique<kde::KWinWindowTracker>();
    if (tracker->isUsable())
        return tracker;
    if (why)
        *why = tracker->failureReason();
    return nullptr;
}

} // namespace dictora::KdePlatform
