#pragma once

#include "audio/AudioBuffer.h"
#include "audio/AudioConverter.h"
#include "audio/FinalAudioCapture.h"
#include "core/AudioMeterLevels.h"

#include <QPointer>

#include <functional>
#include <memory>
#include <optional>

namespace dictora {

using AudioMeterCallback = std::function<void(AudioMeterLevels)>;
// Receives each converted 16 kHz block right after the capture keeps it.
using AudioSampleSink = std::function<void(const float *samples, size_t count)>;

// One recording's path from raw capture buffers to the 16 kHz capture: meter
// first, then conversion. Used only on the capture thread once created
// (finish() runs after the capture thread has let go of it).
class AudioCaptureTapPipe {
public:
    // Meter levels are posted, queued, to mainThreadContext's thread; they are
    // dropped if that object is gone by then.
    AudioCaptureTapPipe(std::unique_ptr<AudioConverter> converter,
                        std::shared_ptr<FinalAudioCapture> capture,
                        AudioMeterCallback onMeterLevels,
                        QObject *mainThreadContext);

    // Before the first buffer; called on the capture thread, then by finish().
    void setSampleSink(AudioSampleSink sink) { m_sampleSink = std::move(sink); }

    void handle(const AudioBuffer &buffer);
    // Ends the recording's conversion: the resampler's last frames go into the capture.
    void finish();

    qint64 meterFramesSinceEmission() const { return m_meterFramesSinceEmission; }
    const AudioFormat &outputFormat() const { return m_outputFormat; }

    // The four slice levels of a raw buffer's first channel, or nothing when
    // the buffer is interleaved, not float, or shorter than four frames.
    static std::optional<AudioMeterLevels> meterLevels(const AudioBuffer &buffer);
    // (20·log10(max(rms, 1e-6)) + 52) / 45, clamped to 0…1.
    static float levelForRms(float rms);
    static float rms(const float *samples, quint32 count);
    static qint64 meterInterval(double sampleRate);

private:
    void emitMeterLevelsIfNeeded(const AudioBuffer &buffer);
    void keep(const AudioBuffer &converted);

    std::unique_ptr<AudioConverter> m_converter;
    AudioFormat m_outputFormat;
    std::shared_ptr<FinalAudioCapture> m_capture;
    AudioMeterCallback m_onMeterLevels;
    QPointer<QObject> m_mainThreadContext;
    qint64 m_meterFramesSinceEmission = 0;
    AudioSampleSink m_sampleSink;
};

} // namespace dictora
