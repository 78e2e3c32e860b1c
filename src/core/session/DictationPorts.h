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
