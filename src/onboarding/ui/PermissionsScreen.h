#pragma once

#include "onboarding/OnboardingModel.h"
#include "onboarding/ui/OnboardingStageShell.h"

#include <functional>
#include <optional>

class QLabel;
class QProgressBar;

namespace dictora {

// Where the speech model stands while onboarding waits for it.
struct ModelPreparation {
    std::optional<int> percent;
    bool failed = false;
};

// Microphone, then the shortcut's accessibility, then the wait for the
// speech model; one button at a time says what to do next.
class PermissionsScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    // The reasons say in the user's words why a permission is missing; the
    // button text says what the accessibility button does on this desktop.
    PermissionsScreen(const OnboardingModel &model, std::function<QString()> microphoneReason,
                      std::function<QString()> accessibilityReason,
                      std::function<QString()> accessibilityButtonText, QWidget *parent = nullptr);

    void setModelPreparation(const ModelPreparation &preparation);
    void refresh();

Q_SIGNALS:
    void microphoneRequested();
    void microphoneSettingsRequested();
    void accessibilitySettingsRequested();
    void downloadRetryRequested();

private:
    const OnboardingModel &m_model;
    std::function<QString()> m_microphoneReason;
    std::function<QString()> m_accessibilityReason;
    std::function<QString()> m_accessibilityButtonText;
    ModelPreparation m_preparation;

    QLabel *m_guidance;
    QLabel *m_percent;
    QProgressBar *m_progress;
    QPushButton *m_allowMicrophone;
    QPushButton *m_microphoneSettings;
    QPushButton *m_accessibilitySettings;
    QPushButton *m_retryDownload;
};

} // namespace dictora
