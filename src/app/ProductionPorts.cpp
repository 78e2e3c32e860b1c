#include "app/ProductionPorts.h"

#include "audio/AudioCaptureThread.h"
#include "core/Async.h"
#include "core/RuntimeLog.h"
#include "speech/AccuracyModelManager.h"
#include "speech/ChunkedTranscription.h"
#include "speech/VoiceActivity.h"
#include "text/paste/PasteService.h"

#include <QPointer>

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
    m_stream = std::make_shared<ChunkedTranscription>(ChunkedTranscription::recogniserFor(m_manager.engine()),
        m_manager.voiceActivityModel()->get());
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

struct VoiceGatedSpeechPort::Stream {
    static constexpr size_t kPreviewSamples = 30 * 16000; // one recognition window

    std::mutex mutex;
    QString model; // opened by the first samples, off the main thread
    std::unique_ptr<VoiceActivityDetector> detector;
    std::vector<float> probabilities;
    qint64 fed = 0;
    bool keepsRecent = false;   // for the preview
    std::vector<float> recent;  // the last window's samples
    qint64 previewedFed = 0;
};

namespace {

qint64 millisecondsOf(qint64 samples) { return samples * 1000 / AccurateSpeechEngine::kSampleRate; }

} // namespace

VoiceGatedSpeechPort::VoiceGatedSpeechPort(SpeechPort &recogniser,
    std::shared_ptr<const VoiceActivityModelPath> model, RuntimeLog &log, std::function<bool()> previewEnabled,
    QObject *parent)
    : SpeechPort(parent)
    , m_recogniser(recogniser)
    , m_model(std::move(model))
    , m_log(log)
    , m_previewEnabled(std::move(previewEnabled))
{
    connect(&m_recogniser, &SpeechPort::readyChanged, this, &SpeechPort::readyChanged);
    m_previewTimer.setInterval(1000);
    connect(&m_previewTimer, &QTimer::timeout, this, &VoiceGatedSpeechPort::refreshPreview);
}

void VoiceGatedSpeechPort::refreshPreview()
{
    const std::shared_ptr<Stream> stream = m_stream;
    if (!stream || m_previewInFlight)
        return;
    std::vector<float> recent;
    {
        std::lock_guard lock(stream->mutex);
        if (stream->fed - stream->previewedFed < AccurateSpeechEngine::kSampleRate / 2)
            return; // nothing new worth a recognition
        if (stream->detector && speechSpans(stream->probabilities, stream->fed).empty())
            return; // no speech yet: nothing to show, nothing to invent
        stream->previewedFed = stream->fed;
        recent = stream->recent;
    }
    m_previewInFlight = true;
    QPointer<VoiceGatedSpeechPort> self(this);
    m_recogniser.transcribe(std::move(recent), [self, stream](std::optional<Result> result, QString) {
        if (!self)
            return;
        self->m_previewInFlight = false;
        if (self->m_stream != stream || !result)
            return; // the recording ended meanwhile, or the preview failed: say nothing
        Q_EMIT self->previewChanged(isNonSpeechOutput(result->text) ? QString() : result->text);
    });
}

VoiceGatedSpeechPort::~VoiceGatedSpeechPort() = default;

bool VoiceGatedSpeechPort::isReady() const { return m_recogniser.isReady(); }

void VoiceGatedSpeechPort::startAutomatically() { m_recogniser.startAutomatically(); }

void VoiceGatedSpeechPort::logMissingModel()
{
    if (std::exchange(m_missingLogged, true))
        return;
    m_log.write(QStringLiteral("voice activity model not ready; recordings go to the recogniser whole"));
}

SpeechPort::Done VoiceGatedSpeechPort::dropNonSpeech(Done done)
{
    // The log outlives this port; the answer may come while it is being torn down.
    return [log = &m_log, done = std::move(done)](std::optional<Result> result, QString error) {
        if (result && isNonSpeechOutput(result->text)) {
            log->write(QStringLiteral("recogniser output dropped as non-speech chars=%1").arg(result->text.size()));
            result->text.clear();
        }
        done(std::move(result), std::move(error));
    };
}

void VoiceGatedSpeechPort::transcribe(std::vector<float> samples, Done done)
{
    const QString path = m_model->get();
    if (path.isEmpty()) {
        logMissingModel();
        m_recogniser.transcribe(std::move(samples), dropNonSpeech(std::move(done)));
        return;
    }
    struct Gated {
        std::vector<float> speech;
        qint64 recorded = 0;
        bool judged = false;
    };
    runElsewhere(this,
        [path, samples = std::move(samples)]() mutable {
            Gated gated{{}, qint64(samples.size()), false};
            const std::unique_ptr<VoiceActivityDetector> detector = VoiceActivityDetector::open(path);
            if (!detector) {
                gated.speech = std::move(samples);
                return gated;
            }
            const std::vector<float> probabilities = detector->probabilities(samples);
            gated.speech = speechOnly(samples, speechSpans(probabilities, qsizetype(samples.size())));
            gated.judged = true;
            return gated;
        },
        [this, done = std::move(done)](Gated gated) mutable {
            if (gated.judged && gated.speech.empty()) {
                m_log.write(QStringLiteral("no speech detected; nothing recognised recordedMs=%1")
                                .arg(millisecondsOf(gated.recorded)));
                done(Result{}, QString());
                return;
            }
            m_log.write(QStringLiteral("speech sent to the recogniser speechMs=%1 recordedMs=%2")
                            .arg(millisecondsOf(qint64(gated.speech.size())))
                            .arg(millisecondsOf(gated.recorded)));
            m_recogniser.transcribe(std::move(gated.speech), dropNonSpeech(std::move(done)));
        });
}

SpeechPort::SampleSink VoiceGatedSpeechPort::beginStream()
{
    cancelStream();
    SampleSink recogniser = m_recogniser.beginStream();
    if (!recogniser)
        return {};
    m_stream = std::make_shared<Stream>();
    m_stream->model = m_model->get();
    m_stream->keepsRecent = m_previewEnabled && m_previewEnabled();
    if (m_stream->keepsRecent)
        m_previewTimer.start();
    return [stream = m_stream, recogniser = std::move(recogniser)](const float *samples, size_t count) {
        {
            std::lock_guard lock(stream->mutex);
            if (!stream->model.isEmpty())
                stream->detector = VoiceActivityDetector::open(std::exchange(stream->model, QString()));
            stream->fed += qint64(count);
            if (stream->detector)
                stream->detector->feed(std::span(samples, count), stream->probabilities);
            if (stream->keepsRecent) {
                std::vector<float> &recent = stream->recent;
                recent.insert(recent.end(), samples, samples + count);
                if (recent.size() > Stream::kPreviewSamples)
                    recent.erase(recent.begin(), recent.end() - qsizetype(Stream::kPreviewSamples));
            }
        }
        recogniser(samples, count);
    };
}

void VoiceGatedSpeechPort::finishStream(Done done)
{
    m_previewTimer.stop();
    const std::shared_ptr<Stream> stream = std::exchange(m_stream, {});
    if (!stream) {
        SpeechPort::finishStream(std::move(done));
        return;
    }
    std::unique_lock lock(stream->mutex);
    if (!stream->detector) {
        lock.unlock();
        logMissingModel();
        m_recogniser.finishStream(dropNonSpeech(std::move(done)));
        return;
    }
    stream->detector->flush(stream->probabilities);
    const std::vector<SpeechSpan> spans = speechSpans(stream->probabilities, stream->fed);
    const qint64 fed = stream->fed;
    lock.unlock();
    if (spans.empty()) {
        m_log.write(QStringLiteral("no speech detected; nothing recognised recordedMs=%1").arg(millisecondsOf(fed)));
        m_recogniser.cancelStream();
        done(Result{}, QString());
        return;
    }
    m_log.write(QStringLiteral("speech detected speechMs=%1 recordedMs=%2")
                    .arg(millisecondsOf(spannedSamples(spans)))
                    .arg(millisecondsOf(fed)));
    m_recogniser.finishStream(dropNonSpeech(std::move(done)));
}

void VoiceGatedSpeechPort::cancelStream()
{
    m_previewTimer.stop();
    m_stream.reset();
    m_recogniser.cancelStream();
}

void CaptureMicrophonePort::start(Listeners listeners, Started done)
{
    whenReady(m_capture.start(std::move(listeners.onMeterLevels), std::move(listeners.onSamples)), &m_capture,
        [done = std::move(done)](QFuture<void> started) {
            try {
                started.waitForFinished(); // finished already: rethrows why it failed
                done(std::nullopt);
            } catch (...) {
                done(errorMessage(std::current_exception()));
            }
        });
}

void CaptureMicrophonePort::stop(Stopped done)
{
    whenReady(m_capture.stop(m_tail ? m_tail() : 0), &m_capture,
        [done = std::move(done)](QFuture<CapturedAudioResult> stopped) {
            CapturedAudioResult result = stopped.result();
            done(Captured{std::move(result.samples), result.rmsLevel});
        });
}

void CaptureMicrophonePort::cancel() { m_capture.cancel(); }

void CaptureMicrophonePort::requestPermission(Answered done)
{
    whenReady(m_capture.requestPermission(), &m_capture,
        [done = std::move(done)](QFuture<bool> answered) { done(answered.result()); });
}

void CaptureMicrophonePort::checkStatus(StatusDone done)
{
    whenReady(m_capture.checkStatus(), &m_capture,
        [done = std::move(done)](QFuture<AudioCaptureService::MicrophoneStatus> checked) {
            const AudioCaptureService::MicrophoneStatus status = checked.result();
            done({status.authorized ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied,
                status.reason});
        });
}

std::optional<PasteTarget> ServicePasterPort::captureTarget() { return m_service.captureTarget(); }

QString ServicePasterPort::lastPasteError() const
{
    return m_service.lastError();
}

void ServicePasterPort::paste(const QString &text, const PasteTarget &target, Pasted done)
{
    m_service.paste(text, target, std::move(done));
}

} // namespace dictora
