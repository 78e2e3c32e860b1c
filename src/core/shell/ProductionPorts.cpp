#include "core/shell/ProductionPorts.h"

#include "audio/AudioCaptureThread.h"
#include "core/Async.h"
#include "speech/AccuracyModelManager.h"
#include "speech/ChunkedTranscription.h"
#include "text/paste/PasteService.h"

namespace dictora {

ModelSpeechPort::ModelSpeechPort(AccuracyModelManager &manager, QObject *parent)
    : SpeechPort(parent), m_manager(manager)
{
    connect(&m_manager, &AccuracyModelManager::phaseChanged, this,
        [this](const AccuracyModelPhase &phase) { Q_EMIT readyChanged(phase.isReady()); });
}

bool ModelSpeechPort::isReady() const { return m_manager.phase().isReady(); }

void ModelSpeechPort::startAutomatically() { m_manager.startAutomatically(); }

void ModelSpeechPort::transcribe(std::vector<float> samples, Done done)
{
    deliver(m_manager.transcribe(std::move(samples)), std::move(done));
}

SpeechPort::SampleSink ModelSpeechPort::beginStream()
{
    cancelStream();
    m_stream = std::make_shared<ChunkedTranscription>(ChunkedTranscription::recogniserFor(m_manager.engine()));
    return [stream = m_stream](const float *samples, size_t count) { stream->feed(samples, count); };
}

void ModelSpeechPort::finishStream(Done done)
{
    if (!m_stream) {
        SpeechPort::finishStream(std::move(done));
        return;
    }
    const std::shared_ptr<ChunkedTranscription> stream = std::exchange(m_stream, {});
    deliver(stream->finish(), std::move(done));
}

void ModelSpeechPort::cancelStream()
{
    if (const std::shared_ptr<ChunkedTranscription> stream = std::exchange(m_stream, {}))
        stream->cancel();
}

void ModelSpeechPort::deliver(QFuture<AccurateSpeechResult> future, Done done)
{
    whenReady(std::move(future), this, [done = std::move(done)](QFuture<AccurateSpeechResult> finished) {
        try {
            const AccurateSpeechResult result = finished.result();
            done(Result{result.text, result.durationMilliseconds, result.language}, QString());
        } catch (...) {
            done(std::nullopt, errorMessage(std::current_exception()));
        }
    });
}

void CaptureMicrophonePort::start(Listeners listeners, Started done)
{
    m_capture.start(std::move(listeners.onMeterLevels), std::move(listeners.onSamples), std::move(done));
}

void CaptureMicrophonePort::stop(Stopped done)
{
    m_capture.stop([done = std::move(done)](CapturedAudioResult result) {
        done(Captured{std::move(result.samples), result.rmsLevel});
    });
}

void CaptureMicrophonePort::cancel() { m_capture.cancel(); }

void CaptureMicrophonePort::requestPermission(Answered done) { m_capture.requestPermission(std::move(done)); }

void CaptureMicrophonePort::checkStatus(StatusDone done)
{
    m_capture.checkStatus([done = std::move(done)](AudioCaptureService::MicrophoneStatus status) {
        done({status.authorized ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied,
            status.reason});
    });
}

std::optional<PasteTarget> ServicePasterPort::captureTarget() { return m_service.captureTarget(); }

void ServicePasterPort::paste(const QString &text, const PasteTarget &target, Pasted done)
{
    m_service.paste(text, target, std::move(done));
}

} // namespace dictora
