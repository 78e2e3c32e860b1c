#pragma once

#include "platform/Clipboard.h"

#include <chrono>

namespace dictora::x11 {

// What the CLIPBOARD selection holds, every format, read over a connection
// of its own: blocking, for a worker thread (the owner may be this process's
// GUI thread, which serves the request meanwhile). Big transfers (INCR)
// included; whatever has not arrived within `budget` is left out.
ClipboardContents readClipboardContents(std::chrono::milliseconds budget);

} // namespace dictora::x11
