#pragma once

#include "dictation/DictationPorts.h"

#include <functional>
#include <memory>

#include <QFuture>
#include <QTimer>

namespace dictora {

class AccuracyModelManager;
class RuntimeLog;
class VoiceActivityDetector;
class VoiceActivityModelPath;
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

// Stands in front of the recogniser's port and lets only speech through. A
// recording in which the detector finds no speech is answered with no text
// (the controller's silent outcome) and never reaches the recogniser; text
// the recogniser makes of non-speech ("Thank you.", "[BLANK_AUDIO]") is
// dropped and logged. Recordings are not handed over whole: only their
// speech is, with long pauses shortened. Without the detector's model,
// recordings go through whole, and the log says so. With a preview, the
// recording's last window is recognised about every second while it runs
// and announced through previewChanged().
class VoiceGatedSpeechPort : public SpeechPort {
    Q_OBJECT
public:
    // `previewEnabled` is asked at each recording's start.
    VoiceGatedSpeechPort(SpeechPort &recogniser, std::shared_ptr<const VoiceActivityModelPath> model, RuntimeLog &log,
        std::function<bool()> previewEnabled = {}, QObject *parent = nullptr);
    ~VoiceGatedSpeechPort() override;
    bool isReady() const override;
    void startAutomatically() override;
    void transcribe(std::vector<float> samples, Done done) override;
    SampleSink beginStream() override;
    void finishStream(Done done) override;
    void cancelStream() override;

private:
    struct Stream;
    Done dropNonSpeech(Done done);
    void logMissingModel();
    void refreshPreview();

    SpeechPort &m_recogniser;
    std::shared_ptr<const VoiceActivityModelPath> m_model;
    RuntimeLog &m_log;
    std::shared_ptr<Stream> m_stream; // shared with the capture thread's sink
    bool m_missingLogged = false;
    std::function<bool()> m_previewEnabled;
    QTimer m_previewTimer;
    bool m_previewInFlight = false;
};

class CaptureMicrophonePort : public MicrophonePort {
public:
    // `tailMilliseconds` is asked at each stop: the setting may change meanwhile.
    explicit CaptureMicrophonePort(AudioCaptureThread &capture, std::function<int()> tailMilliseconds = {})
        : m_capture(capture), m_tail(std::move(tailMilliseconds)) {}
    void start(Listeners listeners, Started done) override;
    void stop(Stopped done) override;
    void cancel() override;
    void requestPermission(Answered done) override;
    void checkStatus(StatusDone done) override;

private:
    AudioCaptureThread &m_capture;
    std::function<int()> m_tail;
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
