#include "audio/AudioCaptureTapPipe.h"

#include <QMetaObject>

#include <algorithm>
#include <cmath>
#include <new>

namespace dictora {

AudioCaptureTapPipe::AudioCaptureTapPipe(std::unique_ptr<AudioConverter> converter,
                                         std::shared_ptr<FinalAudioCapture> capture,
                                         AudioMeterCallback onMeterLevels,
                                         QObject *mainThreadContext)
    : m_converter(std::move(converter)),
      m_outputFormat(m_converter ? m_converter->outputFormat() : AudioFormat::dictationOutput()),
      m_capture(std::move(capture)),
      m_onMeterLevels(std::move(onMeterLevels)),
      m_mainThreadContext(mainThreadContext)
{
}

qint64 AudioCaptureTapPipe::meterInterval(double sampleRate)
{
    return std::max<qint64>(qint64(std::trunc(sampleRate / 12.0)), 1);
}

float AudioCaptureTapPipe::rms(const float *samples, quint32 count)
{
    if (count == 0)
        return 0;
    double sum = 0;
    for (quint32 i = 0; i < count; ++i)
        sum += double(samples[i]) * double(samples[i]);
    return float(std::sqrt(sum / double(count)));
}

float AudioCaptureTapPipe::levelForRms(float rms)
{
    const float level = (20.0f * std::log10(std::max(rms, 0.000001f)) + 52.0f) / 45.0f;
    return std::clamp(level, 0.0f, 1.0f);
}

std::optional<AudioMeterLevels> AudioCaptureTapPipe::meterLevels(const AudioBuffer &buffer)
{
    const float *data = buffer.floatChannelData(0);
    if (!data)
        return std::nullopt;
    const quint32 n = buffer.frameLength();
    if (n < 4)
        return std::nullopt;
    const quint32 slice = n / 4;
    float levels[4];
    for (quint32 i = 0; i < 4; ++i)
        levels[i] = levelForRms(rms(data + i * slice, slice));
    return AudioMeterLevels{levels[0], levels[1], levels[2], levels[3]};
}

void AudioCaptureTapPipe::emitMeterLevelsIfNeeded(const AudioBuffer &buffer)
{
    const qint64 interval = meterInterval(buffer.format().sampleRate);
    const qint64 sum = m_meterFramesSinceEmission + qint64(buffer.frameLength());
    if (sum < interval) {
        m_meterFramesSinceEmission = sum;
        return;
    }
    m_meterFramesSinceEmission = sum % interval;
    const std::optional<AudioMeterLevels> levels = meterLevels(buffer);
    if (!levels || !m_onMeterLevels || !m_mainThreadContext)
        return;
    QMetaObject::invokeMethod(
        m_mainThreadContext.data(),
        [callback = m_onMeterLevels, value = *levels] { callback(value); },
        Qt::QueuedConnection);
}

void AudioCaptureTapPipe::handle(const AudioBuffer &buffer)
{
    emitMeterLevelsIfNeeded(buffer);
    if (!m_converter || buffer.format().sampleRate <= 0)
        return;

    const double ratio = m_outputFormat.sampleRate / buffer.format().sampleRate;
    const quint32 capacity = quint32(ratio * double(buffer.frameLength()) + 64.0);
    std::optional<AudioBuffer> output;
    try {
        output.emplace(m_outputFormat, capacity);
    } catch (const std::bad_alloc &) {
        return;
    }
    bool suppliedInput = false;
    const AudioConverter::OutputStatus status = m_converter->convert(
        *output, [&](AudioConverter::InputStatus &inputStatus) -> const AudioBuffer * {
            if (suppliedInput) {
                inputStatus = AudioConverter::InputStatus::noDataNow;
                return nullptr;
            }
            suppliedInput = true;
            inputStatus = AudioConverter::InputStatus::haveData;
            return &buffer;
        });
    if (status != AudioConverter::OutputStatus::error && output->frameLength() > 0)
        keep(*output);
}

void AudioCaptureTapPipe::keep(const AudioBuffer &converted)
{
    m_capture->append(converted);
    if (m_sampleSink) {
        if (const float *samples = converted.floatChannelData(0))
            m_sampleSink(samples, converted.frameLength());
    }
}

void AudioCaptureTapPipe::finish()
{
    if (!m_converter)
        return;
    AudioBuffer output(m_outputFormat, 4096);
    // The filter tail is a few hundred frames; the bound only guards against a
    // resampler that never says it is done.
    for (int round = 0; round < 64; ++round) {
        const AudioConverter::OutputStatus status = m_converter->convert(
            output, [](AudioConverter::InputStatus &inputStatus) -> const AudioBuffer * {
                inputStatus = AudioConverter::InputStatus::endOfStream;
                return nullptr;
            });
        if (status == AudioConverter::OutputStatus::error || output.frameLength() == 0)
            break;
        keep(output);
    }
}

} // namespace dictora
