#pragma once

#include "audio/AudioCaptureService.h"

#include <QObject>
#include <QThread>
#include <QTimer>

#include <functional>
#include <optional>

namespace dictora {

class RuntimeLog;

// The one thread that owns the capture engine: every request (permission,
// status, start, stop, cancel) runs there in the order it was made, and each
// answer comes back on the thread that made the request's object, so the
// GUI thread never waits on the sound server. Answers still under way when
// this object goes are dropped.
class AudioCaptureThread : public QObject {
    Q_OBJECT
public:
    using Started = std::function<void(std::optional<QString> error)>;
    using Stopped = std::function<void(CapturedAudioResult result)>;
    using Answered = std::function<void(bool authorized)>;
    using StatusDone = std::function<void(AudioCaptureService::MicrophoneStatus status)>;

    // log may be null.
    explicit AudioCaptureThread(RuntimeLog *log = nullptr, QObject *parent = nullptr);
    ~AudioCaptureThread() override;

    // Meter levels arrive on this object's thread while recording; samples
    // (when onSamples is set) on the capture thread as they are converted.
    void start(AudioMeterCallback onMeterLevels, AudioSampleSink onSamples, Started done);
    // Capture goes on for `tailMilliseconds` after the call, so a word still
    // being spoken at the press is kept; then everything comes back.
    void stop(Stopped done, int tailMilliseconds = 0);
    void cancel();
    void requestPermission(Answered done);
    void checkStatus(StatusDone done);
    // The next recording's input; empty: the server's default.
    void setChosenSource(const QString &name);
    using SourcesDone = std::function<void(QList<PulseCaptureEngine::Source> sources)>;
    void listSources(SourcesDone done);
    // The inputs, listed again (settled, on this object's thread) each time
    // one is plugged in or out or the default changes, while this object lives.
    void watchSources(SourcesDone changed);

Q_SIGNALS:
    // About the input in use, for the user (on this object's thread).
    void notice(const QString &text);

private:
    // Runs work(service) on the capture thread and done(result) back here.
    template<typename Work, typename Done>
    // `delayMs`: run on a timer of the capture thread, not a sleep, so a
    // cancel or another request in the meantime still runs in its turn.
    void request(Work work, Done done, int delayMs = 0);

    QThread m_thread;
    QTimer *m_sourcesSettle = nullptr;
    AudioCaptureService *m_service; // lives on m_thread and is deleted there
};

} // namespace dictora
