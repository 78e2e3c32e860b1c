#pragma once

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "onboarding/OnboardingModel.h"
#include "onboarding/ui/OnboardingStageShell.h"

namespace dictora {

class KeyboardIllustration;

// The first dictation: the headline follows the live phase and the
// shortcut key flashes while a press is expected.
class PracticeScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    PracticeScreen(const OnboardingModel &model, const DictoraState &state, const ProductPreferences &preferences,
                   QWidget *parent = nullptr);

    // A fresh visit: earlier attempts no longer count.
    void restart();
    void refresh();

private:
    const OnboardingModel &m_model;
    const DictoraState &m_state;
    const ProductPreferences &m_preferences;
    KeyboardIllustration *m_keyboard;
    bool m_attempted = false;
};

} // namespace dictora
