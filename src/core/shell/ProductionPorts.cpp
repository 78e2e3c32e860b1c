#include "core/shell/ProductionPorts.h"

#include "audio/AudioCaptureService.h"
#include "speech/AccuracyModelManager.h"
#include "speech/ChunkedTranscription.h"
#include "text/paste/PasteService.h"

#include <QFutureWatcher>

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
    auto *watcher = new QFutureWatcher<AccurateSpeechResult>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [watcher, done = std::move(done)] {
        watcher->deleteLater();
        try {
            const AccurateSpeechResult result = watcher->result();
            done(Result{result.text, result.durationMilliseconds}, QString());
        } catch (const Error &e) {
            done(std::nullopt, e.description());
        } catch (const std::exception &e) {
            done(std::nullopt, QString::fromUtf8(e.what()));
        }
    });
    watcher->setFuture(future);
}

void ScriptedSpeechPort::finishStream(Done done)
{
    cancelStream();
    transcribe({}, std::move(done));
}

void ScriptedSpeechPort::transcribe(std::vector<float>, Done done)
{
    const QString text = qEnvironmentVariable("DICTORA_SCRIPTED_TRANSCRIPT");
    QMetaObject::invokeMethod(this, [text, done = std::move(done)] { done(Result{text, 0}, QString()); },
        Qt::QueuedConnection);
}

void CaptureMicrophonePort::start(std::function<void(AudioMeterLevels)> onMeterLevels)
{
    m_capture.start(std::move(onMeterLevels));
}

MicrophonePort::Captured CaptureMicrophonePort::stop()
{
    CapturedAudioResult result = m_capture.stop();
    return Captured{std::move(result.samples), result.rmsLevel};
}

void CaptureMicrophonePort::cancel() { m_capture.cancel(); }

void CaptureMicrophonePort::setSampleSink(std::function<void(const float *, size_t)> sink)
{
    m_capture.setSampleSink(std::move(sink));
}

bool CaptureMicrophonePort::requestPermission() { return m_capture.requestMicrophonePermission(); }

OnboardingPermissionStatus CaptureMicrophonePort::status()
{
    return m_capture.microphoneStatus().authorized ? OnboardingPermissionStatus::authorized
                                                   : OnboardingPermissionStatus::denied;
}

std::optional<PasteTarget> ServicePasterPort::captureTarget() { return m_service.captureTarget(); }

qint64 ServicePasterPort::paste(const QString &text, const PasteTarget &target)
{
    return m_service.paste(text, target);
}

} // namespace dictora
