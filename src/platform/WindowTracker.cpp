#include "platform/WindowTracker.h"

#include <QCoreApplication>

#include <unistd.h>

namespace dictora {

WindowTracker::~WindowTracker() = default;

std::optional<FrontmostWindow> WindowTracker::frontmostOtherApplication()
{
    std::optional<FrontmostWindow> window = frontmostWindow();
    if (window && window->processId == static_cast<qint32>(::getpid()))
        return std::nullopt;
    return window;
}

} // namespace dictora
