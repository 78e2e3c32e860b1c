#pragma once

#include "core/ProductPreferences.h"
#include "onboarding/ui/OnboardingStageShell.h"

namespace dictora {

// The last screen: the shortcut to remember and the way out.
class ReadyScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    explicit ReadyScreen(const ProductPreferences &preferences, QWidget *parent = nullptr);

Q_SIGNALS:
    void finishRequested();

private:
    void refresh();

    const ProductPreferences &m_preferences;
};

} // namespace dictora
