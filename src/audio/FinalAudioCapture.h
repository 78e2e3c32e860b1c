#pragma once

#include "audio/AudioBuffer.h"
#include "audio/CapturedAudioResult.h"

#include <QMutex>

#include <vector>

namespace dictora {

// The samples of the current recording, shared by the capture thread (which
// appends) and the main thread (which resets and reads). Keeps at most
// kSafetyLimit samples; anything beyond is dropped and flagged.
class FinalAudioCapture {
public:
    static constexpr qsizetype kSafetyLimit = 28'800'000; // 30 minutes at 16 kHz
    static constexpr qsizetype kReservedSamples = 480'000; // 30 seconds

    FinalAudioCapture();

    void reset();
    // A converted 16 kHz buffer; interleaved, non-float or empty buffers are ignored.
    void append(const AudioBuffer &buffer);
    CapturedAudioResult result() const;

    qsizetype sampleCount() const;
    size_t capacity() const;

private:
    mutable QMutex m_lock;
    std::vector<float> m_samples;
    double m_sumOfSquares = 0;
    bool m_reachedSafetyLimit = false;
};

} // namespace dictora
