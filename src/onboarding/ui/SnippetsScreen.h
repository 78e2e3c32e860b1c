#pragma once

#include "onboarding/ui/OnboardingStageShell.h"

namespace dictora {

// One example snippet, a way into the snippet list, and on to practice.
class SnippetsScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    explicit SnippetsScreen(QWidget *parent = nullptr);

Q_SIGNALS:
    void useSnippetsRequested();
    void nextRequested();
};

} // namespace dictora
