#pragma once

#include "audio/AudioCaptureService.h"

#include <QFuture>
#include <QObject>
#include <QThread>
#include <QTimer>

#include <functional>

namespace dictora {

class RuntimeLog;

// The one thread that owns the capture engine: every request (permission,
// status, start, stop, cancel) runs there in the order it was made, and each
// answers with a future that finishes there; callers continue it on their
// own thread (whenReady), so the GUI thread never waits on the sound server.
// Requests still queued when this object goes are dropped with it.
class AudioCaptureThread : public QObject {
    Q_OBJECT
public:
    using SourcesDone = std::function<void(QList<PulseCaptureEngine::Source> sources)>;

    // log may be null.
    explicit AudioCaptureThread(RuntimeLog *log = nullptr, QObject *parent = nullptr);
    ~AudioCaptureThread() override;

    // Meter levels arrive on this object's thread while recording; samples
    // (when onSamples is set) on the capture thread as they are converted.
    // Fails with the reason the microphone could not be opened.
    QFuture<void> start(AudioMeterCallback onMeterLevels, AudioSampleSink onSamples);
    // Capture goes on for `tailMilliseconds` after the call, so a word still
    // being spoken at the press is kept; then everything comes back.
    QFuture<CapturedAudioResult> stop(int tailMilliseconds = 0);
    void cancel();
    QFuture<bool> requestPermission();
    QFuture<AudioCaptureService::MicrophoneStatus> checkStatus();
    // The next recording's input; empty: the server's default.
    void setChosenSource(const QString &name);
    QFuture<QList<PulseCaptureEngine::Source>> listSources();
    // The inputs, listed again (settled, on this object's thread) each time
    // one is plugged in or out or the default changes, while this object lives.
    void watchSources(SourcesDone changed);

Q_SIGNALS:
    // About the input in use, for the user (on this object's thread).
    void notice(const QString &text);

private:
    // Runs work(service) on the capture thread; its result, or what it
    // threw, finishes the future. `delayMs`: run on a timer of the capture
    // thread, not a sleep, so a cancel or another request in the meantime
    // still runs in its turn.
    template<typename Work>
    auto request(Work work, int delayMs = 0);

    QThread m_thread;
    QTimer *m_sourcesSettle = nullptr;
    AudioCaptureService *m_service; // lives on m_thread and is deleted there
};

} // namespace dictora
