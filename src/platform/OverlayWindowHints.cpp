#include "platform/OverlayWindowHints.h"

namespace dictora {

OverlayWindowHints::~OverlayWindowHints() = default;

} // namespace dictora
