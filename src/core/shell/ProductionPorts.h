#pragma once

#include "core/session/DictationPorts.h"

#include <functional>
#include <memory>

#include <QFuture>

namespace dictora {

class AccuracyModelManager;
class AudioCaptureThread;
class ChunkedTranscription;
struct AccurateSpeechResult;
class PasteService;

// The real services behind the controller's ports.
class ModelSpeechPort : public SpeechPort {
    Q_OBJECT
public:
    explicit ModelSpeechPort(AccuracyModelManager &manager, QObject *parent = nullptr);
    bool isReady() const override;
    void startAutomatically() override;
    void transcribe(std::vector<float> samples, Done done) override;
    SampleSink beginStream() override;
    void finishStream(Done done) override;
    void cancelStream() override;

protected:
    void deliver(QFuture<AccurateSpeechResult> future, Done done);

    AccuracyModelManager &m_manager;
    std::shared_ptr<ChunkedTranscription> m_stream; // shared with the capture thread's sink
};

class CaptureMicrophonePort : public MicrophonePort {
public:
    explicit CaptureMicrophonePort(AudioCaptureThread &capture) : m_capture(capture) {}
    void start(Listeners listeners, Started done) override;
    void stop(Stopped done) override;
    void cancel() override;
    void requestPermission(Answered done) override;
    void checkStatus(StatusDone done) override;

private:
    AudioCaptureThread &m_capture;
};

class ServicePasterPort : public PasterPort {
public:
    explicit ServicePasterPort(PasteService &service) : m_service(service) {}
    std::optional<PasteTarget> captureTarget() override;
    void paste(const QString &text, const PasteTarget &target, Pasted done) override;
    QString lastPasteError() const override;

private:
    PasteService &m_service;
};

using SpeechPortFactory = std::function<std::unique_ptr<SpeechPort>(AccuracyModelManager &)>;

} // namespace dictora
