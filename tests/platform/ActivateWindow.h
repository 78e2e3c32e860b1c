#pragma once

#include "platform/WindowTracker.h"

#include <QtTest>

namespace dictora::test {

// Asks for the window and waits, serving the event loop, until it is active.
inline bool activateAndWait(WindowTracker &tracker, WindowHandle window, int timeoutMs)
{
    if (window.isNull())
        return false;
    if (tracker.isActive(window))
        return true;
    tracker.requestActivation(window);
    return QTest::qWaitFor([&] { return tracker.isActive(window); }, timeoutMs);
}

} // namespace dictora::test
