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

    std::unique_ptr<AudioConverter> m_converter;
    AudioFormat m_outputFormat;
    std::shared_ptr<FinalAudioCapture> m_capture;
    AudioMeterCallback m_onMeterLevels;
    QPointer<QObject> m_mainThreadContext;
    qint64 m_meterFramesSinceEmission = 0;
};

} // namespace dictora
