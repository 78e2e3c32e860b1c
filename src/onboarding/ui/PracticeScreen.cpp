#include "onboarding/ui/PracticeScreen.h"

#include "onboarding/ui/OnboardingIllustrations.h"

#include <QVBoxLayout>

namespace dictora {

PracticeScreen::PracticeScreen(const OnboardingModel &model, const DictoraState &state,
                               const ProductPreferences &preferences, QWidget *parent)
    : OnboardingStageShell(parent), m_model(model), m_state(state), m_preferences(preferences),
      m_keyboard(new KeyboardIllustration(this))
{
    m_keyboard->setObjectName(QStringLiteral("keyboard"));
    content()->addWidget(m_keyboard, 1);

    connect(&m_model, &OnboardingModel::changed, this, &PracticeScreen::refresh);
    connect(&m_state, &DictoraState::phaseChanged, this, &PracticeScreen::refresh);
    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, &PracticeScreen::refresh);
    refresh();
}

void PracticeScreen::restart()
{
    m_attempted = false;
    refresh();
}

void PracticeScreen::refresh()
{
    const bool shown = m_model.stage() == OnboardingStage::practice;
    m_keyboard->setKeyLabel(m_preferences.keyboardShortcut().keyLabel);
    const DictoraPhase phase = m_state.phase();
    bool flashing = false;
    switch (phase.kind()) {
    case DictoraPhase::Kind::preparing:
        if (shown)
            m_attempted = true;
        setHeadline(QStringLiteral("YOUR MIC IS OPENING."));
        setDetail(QStringLiteral("Do nothing. You will see your voice move."));
        break;
    case DictoraPhase::Kind::recording:
        if (shown)
            m_attempted = true;
        flashing = true;
        setHeadline(QStringLiteral("FINISH SPEAKING. THEN PRESS THIS AGAIN."));
        setDetail(QStringLiteral("Speak one short sentence. When finished, press the flashing key."));
        break;
    case DictoraPhase::Kind::finalizing:
        setHeadline(QStringLiteral("SAVING YOUR WORDS."));
        setDetail(QStringLiteral("Do nothing. It is being written safely to this computer."));
        break;
    case DictoraPhase::Kind::error:
    case DictoraPhase::Kind::idle:
    case DictoraPhase::Kind::needsAccessibility:
        flashing = true;
        if (m_attempted) {
            // Still on this screen after a dictation: it gave no words.
            setHeadline(QStringLiteral("PRESS ") + m_preferences.keyboardShortcut().displayText()
                        + QStringLiteral(" TO TRY AGAIN."));
            setDetail(phase.is(DictoraPhase::Kind::error) ? phase.message() : QString());
        } else {
            setHeadline(QStringLiteral("PRESS THIS KEY."));
            setDetail(QStringLiteral("It is directly below Esc. One press starts your mic."));
        }
        break;
    }
    m_keyboard->setFlashing(flashing && shown);
}

} // namespace dictora
