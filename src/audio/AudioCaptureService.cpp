#include "audio/AudioCaptureService.h"

#include "core/RuntimeLog.h"

#include <utility>

namespace dictora {

AudioCaptureService::AudioCaptureService(RuntimeLog *log, QObject *parent)
    : QObject(parent), m_log(log), m_engine(log), m_finalCapture(std::make_shared<FinalAudioCapture>())
{
    m_engine.setMovedListener([this](const QString &source) {
        // From the capture thread; the notice goes out on ours.
        QMetaObject::invokeMethod(this, [this, source] {
            if (m_chosenSource.isEmpty() || source == m_chosenSource || !isRecording())
                return;
            m_chosenWasMissing = true;
            Q_EMIT notice(QStringLiteral("The chosen microphone went away; recording goes on from %1.").arg(source));
        }, Qt::QueuedConnection);
    });
}

void AudioCaptureService::setChosenSource(const QString &name)
{
    m_chosenSource = name;
    m_chosenWasMissing = false;
    m_engine.setChosenSource(name);
    write(QStringLiteral("microphone chosen source=%1").arg(name.isEmpty() ? QStringLiteral("default") : name));
}

AudioCaptureService::~AudioCaptureService()
{
    cancel();
}

void AudioCaptureService::write(const QString &message) const
{
    if (m_log)
        m_log->write(message);
}

void AudioCaptureService::setSampleSink(AudioSampleSink sink)
{
    m_nextSampleSink = std::move(sink);
}

void AudioCaptureService::start(AudioMeterCallback onMeterLevels, QObject *meterContext)
{
    if (m_engine.isRunning())
        return;
    m_finalCapture->reset();
    AudioSampleSink sampleSink = std::exchange(m_nextSampleSink, {});

    const PulseCaptureEngine::SourceInfo source = m_engine.defaultSource();
    if (!source.serverAnswered) {
        write(QStringLiteral("microphone unavailable reason=%1").arg(source.serverError));
        throw AudioEngineError(QStringLiteral("The sound server could not be reached (%1).").arg(source.serverError));
    }
    if (!source.format.isUsable()) {
        write(QStringLiteral("microphone unavailable reason=no default input source"));
        throw DictoraAudioCaptureError(DictoraAudioCaptureError::invalidInputFormat);
    }
    if (source.chosenMissing && !m_chosenWasMissing)
        Q_EMIT notice(QStringLiteral("The chosen microphone is not connected; recording from the default input."));
    else if (!source.chosenMissing && m_chosenWasMissing) {
        write(QStringLiteral("microphone chosen source=%1 is back").arg(m_chosenSource));
        Q_EMIT notice(QStringLiteral("The chosen microphone is back."));
    }
    m_chosenWasMissing = source.chosenMissing;

    const AudioFormat output = AudioFormat::dictationOutput();
    std::unique_ptr<AudioConverter> converter = AudioConverter::create(source.format, output);
    if (!converter)
        throw DictoraAudioCaptureError(DictoraAudioCaptureError::audioConverterUnavailable);

    m_tapPipe = std::make_shared<AudioCaptureTapPipe>(std::move(converter), m_finalCapture, std::move(onMeterLevels),
        meterContext ? meterContext : this);
    m_tapPipe->setSampleSink(std::move(sampleSink));
    m_engine.installTap(source.format, [pipe = m_tapPipe](const AudioBuffer &buffer) { pipe->handle(buffer); });
    m_tapInstalled = true;
    try {
        m_engine.start();
    } catch (...) {
        cancel();
        throw;
    }
}

CapturedAudioResult AudioCaptureService::stop()
{
    if (m_tapInstalled) {
        m_engine.removeTap();
        m_tapInstalled = false;
    }
    m_engine.stop();
    // The capture thread has let go of the pipe: collect the resampler's tail.
    if (m_tapPipe)
        m_tapPipe->finish();
    CapturedAudioResult result = m_finalCapture->result();
    m_tapPipe.reset();
    return result;
}

void AudioCaptureService::cancel()
{
    if (m_tapInstalled) {
        m_engine.removeTap();
        m_tapInstalled = false;
    }
    m_engine.stop();
    m_tapPipe.reset();
}

bool AudioCaptureService::isRecording() const
{
    return m_engine.isRunning();
}

AudioCaptureService::MicrophoneStatus AudioCaptureService::microphoneStatus()
{
    const PulseCaptureEngine::SourceInfo source = m_engine.defaultSource();
    if (!source.serverAnswered)
        return {false, QStringLiteral("the sound server could not be reached (%1)").arg(source.serverError)};
    if (source.sourceName.isEmpty())
        return {false, QStringLiteral("the sound server has no default input source")};
    return {true, {}};
}

bool AudioCaptureService::requestMicrophonePermission()
{
    const MicrophoneStatus status = microphoneStatus();
    if (!status.authorized)
        write(QStringLiteral("microphone permission denied reason=%1").arg(status.reason));
    return status.authorized;
}

} // namespace dictora
