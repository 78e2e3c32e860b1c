#include "audio/AudioBuffer.h"

#include <algorithm>

namespace dictora {

AudioBuffer::AudioBuffer(const AudioFormat &format, quint32 frameCapacity)
    : m_format(format), m_frameCapacity(frameCapacity)
{
    m_data.resize(size_t(frameCapacity) * size_t(std::max(format.channelCount, 0)));
}

void AudioBuffer::setFrameLength(quint32 frames)
{
    m_frameLength = std::min(frames, m_frameCapacity);
}

const float *AudioBuffer::floatChannelData(int channel) const
{
    if (m_format.interleaved || !m_format.isFloat || channel < 0 || channel >= m_format.channelCount)
        return nullptr;
    return m_data.data() + size_t(channel) * m_frameCapacity;
}

float *AudioBuffer::floatChannelData(int channel)
{
    return const_cast<float *>(std::as_const(*this).floatChannelData(channel));
}

AudioBuffer AudioBuffer::fromChannels(double sampleRate, const std::vector<std::vector<float>> &channels)
{
    const quint32 frames = channels.empty() ? 0 : quint32(channels.front().size());
    AudioBuffer buffer({sampleRate, int(channels.size()), false, true}, frames);
    for (size_t c = 0; c < channels.size(); ++c)
        std::copy_n(channels[c].begin(), std::min<size_t>(frames, channels[c].size()), buffer.floatChannelData(int(c)));
    buffer.setFrameLength(frames);
    return buffer;
}

} // namespace dictora
