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
};

class MicrophonePort {
public:
    struct Captured {
        std::vector<float> samples; // 16 kHz mono
        float rmsLevel = 0;
    };
    virtual ~MicrophonePort() = default;
    // Throws dictora::Error with a user-facing description.
    virtual void start(std::function<void(AudioMeterLevels)> onMeterLevels) = 0;
    virtual Captured stop() = 0;
    virtual void cancel() = 0;
    // For the next start only: where the converted samples also go as they are captured.
    virtual void setSampleSink(std::function<void(const float *samples, size_t count)> sink) { (void)sink; }
    // May block (it asks the sound server); the controller calls it off the main thread.
    virtual bool requestPermission() = 0;
    virtual OnboardingPermissionStatus status() = 0;
};

class PasterPort {
public:
    virtual ~PasterPort() = default;
    // The focused application unless it is this process.
    virtual std::optional<PasteTarget> captureTarget() = 0;
    // Dispatch time in whole milliseconds.
    virtual qint64 paste(const QString &text, const PasteTarget &target) = 0;
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
