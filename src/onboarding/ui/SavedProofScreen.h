#pragma once

#include "onboarding/OnboardingModel.h"
#include "onboarding/ui/OnboardingStageShell.h"

class QLabel;

namespace dictora {

// The practice words as they were saved, with their time.
class SavedProofScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    explicit SavedProofScreen(const OnboardingModel &model, QWidget *parent = nullptr);

    void refresh();

Q_SIGNALS:
    void nextRequested();

private:
    const OnboardingModel &m_model;
    QLabel *m_time;
    QLabel *m_text;
};

} // namespace dictora
