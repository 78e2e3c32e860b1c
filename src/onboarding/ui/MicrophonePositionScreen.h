#pragma once

#include "core/ProductPreferences.h"
#include "onboarding/ui/OnboardingStageShell.h"

class QButtonGroup;
class QSlider;

namespace dictora {

class PlacementPreview;

// Where the indicator sits, how big and how opaque: every choice is written
// to the preferences at once and the preview follows them.
class MicrophonePositionScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    explicit MicrophonePositionScreen(ProductPreferences &preferences, QWidget *parent = nullptr);

Q_SIGNALS:
    void nextRequested();

private:
    ProductPreferences &m_preferences;
    PlacementPreview *m_preview;
    QButtonGroup *m_sizes;
    QSlider *m_opacity;
};

} // namespace dictora
