#pragma once

#include "audio/AudioCaptureTapPipe.h"
#include "audio/CapturedAudioResult.h"
#include "audio/DictoraAudioCaptureError.h"
#include "audio/FinalAudioCapture.h"
#include "audio/PulseCaptureEngine.h"

#include <QObject>
#include <QString>

#include <memory>

namespace dictora {

class RuntimeLog;

// Records the microphone for one dictation at a time and hands back 16 kHz
// mono samples. Its calls wait on the sound server: the application keeps it
// on a thread of its own (AudioCaptureThread); tools and tests may call it
// directly.
class AudioCaptureService : public QObject {
    Q_OBJECT
public:
    struct MicrophoneStatus {
        bool authorized = false;
        QString reason; // why not, when not
    };

    // log may be null.
    explicit AudioCaptureService(RuntimeLog *log = nullptr, QObject *parent = nullptr);
    ~AudioCaptureService() override;

    // Starts recording from the default input source. A second start while
    // recording does nothing. Throws DictoraAudioCaptureError, or
    // AudioEngineError when the sound server refuses; the service is then idle.
    // Meter levels are delivered on meterContext's thread (default: this one's).
    void start(AudioMeterCallback onMeterLevels, QObject *meterContext = nullptr);
    // Everything captured, including the resampler's last frames. Never fails.
    CapturedAudioResult stop();
    // Stops without a result; the samples stay until the next start.
    void cancel();
    bool isRecording() const;

    // For the next recording only: also hands every converted 16 kHz block to
    // `sink` as it is captured (on the capture thread; the last blocks on the
    // thread that calls stop()), so recognition can start before the stop.
    void setSampleSink(AudioSampleSink sink);

    // Authorized when the sound server answers and has a default input
    // source; a denial is written to the log with its reason. Blocks until
    // the local server answers (a few milliseconds, at most the engine's
    // timeout), so call it where a short wait is acceptable.
    bool requestMicrophonePermission();
    MicrophoneStatus microphoneStatus();

    // Empty: the server's default input, followed when it changes. A chosen
    // input that is missing at a start, or goes away while recording, gives
    // way to the default with a notice; it is used again once it is back.
    void setChosenSource(const QString &name);
    QList<PulseCaptureEngine::Source> sources() { return m_engine.sources(); }

    PulseCaptureEngine &engine() { return m_engine; }
    const FinalAudioCapture &finalCapture() const { return *m_finalCapture; }

Q_SIGNALS:
    // For the user, about the input in use (emitted on this object's thread).
    void notice(const QString &text);

private:
    void write(const QString &message) const;

    RuntimeLog *m_log;
    PulseCaptureEngine m_engine;
    std::shared_ptr<FinalAudioCapture> m_finalCapture;
    std::shared_ptr<AudioCaptureTapPipe> m_tapPipe;
    bool m_tapInstalled = false;
    AudioSampleSink m_nextSampleSink;
    QString m_chosenSource;
    bool m_chosenWasMissing = false;
};

} // namespace dictora
