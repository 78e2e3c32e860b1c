#pragma once

#include "core/session/DictationPorts.h"

#include <functional>
#include <memory>

#include <QFuture>

namespace dictora {

class AccuracyModelManager;
class AudioCaptureService;
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

// The test-only recogniser of dictora-scripted: the model is prepared as
// usual, but the words come from DICTORA_SCRIPTED_TRANSCRIPT.
class ScriptedSpeechPort : public ModelSpeechPort {
    Q_OBJECT
public:
    using ModelSpeechPort::ModelSpeechPort;
    void transcribe(std::vector<float> samples, Done done) override;
    void finishStream(Done done) override;
};

class CaptureMicrophonePort : public MicrophonePort {
public:
    explicit CaptureMicrophonePort(AudioCaptureService &capture) : m_capture(capture) {}
    void start(std::function<void(AudioMeterLevels)> onMeterLevels) override;
    Captured stop() override;
    void cancel() override;
    void setSampleSink(std::function<void(const float *, size_t)> sink) override;
    bool requestPermission() override;
    OnboardingPermissionStatus status() override;

private:
    AudioCaptureService &m_capture;
};

class ServicePasterPort : public PasterPort {
public:
    explicit ServicePasterPort(PasteService &service) : m_service(service) {}
    std::optional<PasteTarget> captureTarget() override;
    qint64 paste(const QString &text, const PasteTarget &target) override;

private:
    PasteService &m_service;
};

using SpeechPortFactory = std::function<std::unique_ptr<SpeechPort>(AccuracyModelManager &)>;

} // namespace dictora
