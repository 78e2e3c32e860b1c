#pragma once

#include <vector>

namespace dictora {

// Everything one recording captured: 16 kHz mono float samples.
struct CapturedAudioResult {
    std::vector<float> samples;
    float rmsLevel = 0;
    bool reachedSafetyLimit = false;
};

} // namespace dictora
