#pragma once

#include "core/AudioMeterLevels.h"
#include "core/ProductPreferences.h"
#include "onboarding/OnboardingModel.h"
#include "text/paste/PasteTarget.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace dictora {

// The speech model as the controller needs it: ready or not, and text.
class SpeechPort : public QObject {
    Q_OBJECT
public:
    struct Result {
        QString text;
        qint64 durationMilliseconds = 0;
        QString language; // the code recognition used; empty when it does not say
    };
    // Exactly one of result and error is set; called on the main thread.
    using Done = std::function<void(std::optional<Result> result, QString error)>;

    using QObject::QObject;
    virtual bool isReady() const = 0;
    virtual void startAutomatically() = 0;
    virtual void transcribe(std::vector<float> samples, Done done) = 0;

    // Recognition while recording. beginStream() returns where the captured
    // 16 kHz samples go (any thread); an empty sink means not supported, and
    // the whole recording then goes to transcribe() after the stop.
    using SampleSink = std::function<void(const float *samples, size_t count)>;
    virtual SampleSink beginStream() { return {}; }
    // After the stop: recognises what is left and answers with the text of
    // the whole recording; its duration covers only the wait after this call.
    virtual void finishStream(Done done) { done(std::nullopt, QStringLiteral("No recognition was under way.")); }
    // Discards the stream's work (silence, failure, cancelled recording).
    virtual void cancelStream() {}

Q_SIGNALS:
    void readyChanged(bool ready);
    // While a stream runs: the text recognised so far, for the eye only; the
    // text pasted is always finishStream()'s. Main thread.
    void previewChanged(const QString &text);
};

// The microphone. Every call returns at once; answers come back on the
// calling (main) thread through the given callbacks, which are dropped if
// the port goes first.
class MicrophonePort {
public:
    struct Captured {
        std::vector<float> samples; // 16 kHz mono
        float rmsLevel = 0;
    };
    struct Status {
        OnboardingPermissionStatus status = OnboardingPermissionStatus::notDetermined;
        QString reason; // why not, when not authorized
    };
    // What a recording reports while it runs: the meter on the main thread,
    // the converted 16 kHz samples (optional) on the capture thread as they come.
    struct Listeners {
        std::function<void(AudioMeterLevels)> onMeterLevels;
        std::function<void(const float *samples, size_t count)> onSamples;
    };
    // Empty error: recording. Otherwise the user-facing description; the
    // microphone is idle again.
    using Started = std::function<void(std::optional<QString> error)>;
    using Stopped = std::function<void(Captured captured)>;
    using Answered = std::function<void(bool authorized)>;
    using StatusDone = std::function<void(Status status)>;

    virtual ~MicrophonePort() = default;
    virtual void start(Listeners listeners, Started done) = 0;
    virtual void stop(Stopped done) = 0;
    virtual void cancel() = 0;
    virtual void requestPermission(Answered done) = 0;
    virtual void checkStatus(StatusDone done) = 0;
};

class PasterPort {
public:
    // Dispatch time in whole milliseconds, from the call to the keystroke.
    using Pasted = std::function<void(qint64 dispatchMilliseconds)>;
    virtual ~PasterPort() = default;
    // The focused application unless it is this process. Quick.
    virtual std::optional<PasteTarget> captureTarget() = 0;
    // Returns at once; `done` runs on the main thread once the keystroke is
    // out (re-activating the target and waiting for released keys may take
    // a moment), at most once, and never after the port is gone.
    virtual void paste(const QString &text, const PasteTarget &target, Pasted done) = 0;
    // Inside `done`: why the desktop did not take the keystroke; empty when it did.
    virtual QString lastPasteError() const { return {}; }
};

// The windows the controller drives but does not own.
struct ViewPorts {
    std::function<void(ScreenAnchor)> repositionOverlay;
    std::function<void()> showOverlay;
    std::function<void()> showMainWindow;
    std::function<void()> refreshHistoryIfVisible;
    // Opens the desktop's settings for "microphone" (nothing to open for the shortcut on X11).
    std::function<void(const QString &pane)> openSettings;
};

} // namespace dictora
