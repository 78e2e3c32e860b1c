#pragma once

#include <QtGlobal>

#include <vector>

namespace dictora {

// The shape of PCM data handed around the capture path. Capture buffers are
// float and deinterleaved (one contiguous block per channel).
struct AudioFormat {
    double sampleRate = 0;
    int channelCount = 0;
    bool interleaved = false;
    bool isFloat = true;

    bool isUsable() const { return sampleRate > 0 && channelCount > 0; }
    static AudioFormat dictationOutput() { return {16000.0, 1, false, true}; }
    friend bool operator==(const AudioFormat &, const AudioFormat &) = default;
};

// A block of frames in one AudioFormat with a fixed capacity. Storage is
// always float; a buffer whose format says otherwise (or is interleaved)
// exposes no float channel data, as a foreign buffer would.
class AudioBuffer {
public:
    AudioBuffer() = default;
    // Throws std::bad_alloc when the storage cannot be had.
    AudioBuffer(const AudioFormat &format, quint32 frameCapacity);

    const AudioFormat &format() const { return m_format; }
    quint32 frameCapacity() const { return m_frameCapacity; }
    quint32 frameLength() const { return m_frameLength; }
    void setFrameLength(quint32 frames); // clamped to the capacity

    // Channel c's samples, or nullptr when the data is not deinterleaved float.
    const float *floatChannelData(int channel) const;
    float *floatChannelData(int channel);

    // Raw storage: channel-major when deinterleaved, frame-major when interleaved.
    float *rawData() { return m_data.data(); }
    const float *rawData() const { return m_data.data(); }

    // Test and capture helpers: a deinterleaved float buffer holding the given
    // frames (one vector per channel, all the same length).
    static AudioBuffer fromChannels(double sampleRate, const std::vector<std::vector<float>> &channels);

private:
    AudioFormat m_format;
    quint32 m_frameCapacity = 0;
    quint32 m_frameLength = 0;
    std::vector<float> m_data;
};

} // namespace dictora
