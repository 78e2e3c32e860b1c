#pragma once

#include "audio/AudioBuffer.h"

#include <functional>
#include <memory>
#include <vector>

struct soxr;

namespace dictora {

// Converts deinterleaved float buffers of one input format to mono float at
// another rate (libsoxr, high quality). Channels are averaged to mono. The
// converter keeps filter state between calls, so one converter must serve a
// whole recording; the input block is asked for data until it has none.
class AudioConverter {
public:
    enum class InputStatus { haveData = 0, noDataNow = 1, endOfStream = 2 };
    enum class OutputStatus { haveData, inputRanDry, endOfStream, error };
    // Called during convert(); sets the status and returns the buffer when
    // it is haveData, nullptr otherwise.
    using InputBlock = std::function<const AudioBuffer *(InputStatus &status)>;

    // nullptr when the formats cannot be converted.
    static std::unique_ptr<AudioConverter> create(const AudioFormat &input, const AudioFormat &output);
    ~AudioConverter();

    const AudioFormat &outputFormat() const { return m_output; }

    // Fills output (from frame 0, up to its capacity) and sets its frame length.
    OutputStatus convert(AudioBuffer &output, const InputBlock &input);

private:
    AudioConverter(const AudioFormat &input, const AudioFormat &output, soxr *resampler);
    bool drain(AudioBuffer &output, bool flush);

    AudioFormat m_input;
    AudioFormat m_output;
    soxr *m_soxr = nullptr;
    std::vector<float> m_pending; // mono input not yet taken by the resampler
    bool m_ended = false;
};

} // namespace dictora
