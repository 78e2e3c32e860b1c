#include "audio/AudioConverter.h"

#include <soxr.h>

namespace dictora {

std::unique_ptr<AudioConverter> AudioConverter::create(const AudioFormat &input, const AudioFormat &output)
{
    if (!input.isUsable() || !input.isFloat || input.interleaved)
        return nullptr;
    if (!output.isUsable() || output.channelCount != 1 || !output.isFloat || output.interleaved)
        return nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    soxr_error_t error = nullptr;
    soxr_t resampler = soxr_create(input.sampleRate, output.sampleRate, 1, &error, &io, &quality, nullptr);
    if (error || !resampler) {
        soxr_delete(resampler);
        return nullptr;
    }
    return std::unique_ptr<AudioConverter>(new AudioConverter(input, output, resampler));
}

AudioConverter::AudioConverter(const AudioFormat &input, const AudioFormat &output, soxr *resampler)
    : m_input(input), m_output(output), m_soxr(resampler)
{
}

AudioConverter::~AudioConverter()
{
    soxr_delete(m_soxr);
}

bool AudioConverter::drain(AudioBuffer &output, bool flush)
{
    float *out = output.floatChannelData(0);
    const size_t room = output.frameCapacity() - output.frameLength();
    if (!out || room == 0)
        return true;
    size_t used = 0;
    size_t produced = 0;
    // A null input tells soxr that the stream has ended and it should flush.
    static const float nothing = 0;
    const float *in = flush ? nullptr : (m_pending.empty() ? &nothing : m_pending.data());
    const size_t available = flush ? 0 : m_pending.size();
    if (soxr_process(m_soxr, in, available, &used, out + output.frameLength(), room, &produced))
        return false;
    m_pending.erase(m_pending.begin(), m_pending.begin() + qsizetype(used));
    output.setFrameLength(output.frameLength() + quint32(produced));
    return true;
}

AudioConverter::OutputStatus AudioConverter::convert(AudioBuffer &output, const InputBlock &input)
{
    output.setFrameLength(0);
    if (output.format() != m_output)
        return OutputStatus::error;
    if (m_ended)
        return drain(output, true) ? OutputStatus::endOfStream : OutputStatus::error;

    while (output.frameLength() < output.frameCapacity()) {
        InputStatus status = InputStatus::noDataNow;
        const AudioBuffer *buffer = input(status);
        if (status == InputStatus::endOfStream) {
            m_ended = true;
            // Take what is pending, then the filter's tail.
            if (!drain(output, false) || !drain(output, true))
                return OutputStatus::error;
            return OutputStatus::endOfStream;
        }
        if (status != InputStatus::haveData || !buffer) {
            if (!drain(output, false))
                return OutputStatus::error;
            return OutputStatus::inputRanDry;
        }
        if (buffer->format().sampleRate != m_input.sampleRate || buffer->format().channelCount != m_input.channelCount)
            return OutputStatus::error;
        const quint32 frames = buffer->frameLength();
        const int channels = m_input.channelCount;
        const float *first = buffer->floatChannelData(0);
        if (!first)
            return OutputStatus::error;
        const size_t start = m_pending.size();
        m_pending.resize(start + frames);
        if (channels == 1) {
            std::copy_n(first, frames, m_pending.begin() + qsizetype(start));
        } else {
            const float scale = 1.0f / float(channels);
            for (quint32 f = 0; f < frames; ++f) {
                float sum = 0;
                for (int c = 0; c < channels; ++c)
                    sum += buffer->floatChannelData(c)[f];
                m_pending[start + f] = sum * scale;
            }
        }
        if (!drain(output, false))
            return OutputStatus::error;
    }
    return OutputStatus::haveData;
}

} // namespace dictora
