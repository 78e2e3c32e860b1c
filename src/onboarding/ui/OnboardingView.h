#pragma once

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/TranscriptJournal.h"
#include "onboarding/OnboardingModel.h"
#include "onboarding/ui/PermissionsScreen.h"
#include "onboarding/ui/SearchProofScreen.h"

#include <QWidget>

#include <functional>
#include <map>
#include <optional>

class QStackedWidget;

namespace dictora {

class OnboardingStageShell;
class PracticeScreen;

// What the screens ask of the rest of the program. The shell wires these to
// the controller and the platform; an unset one is simply not offered.
struct OnboardingActions {
    std::function<void()> requestMicrophone;
    std::function<void()> openMicrophoneSettings;
    std::function<void()> openAccessibilitySettings;
    std::function<void()> retryDownload;
    std::function<void()> openSnippets;
    std::function<void()> finish;
    // Why a permission is not granted yet, in the user's words (empty when fine).
    std::function<QString()> microphoneReason;
    std::function<QString()> accessibilityReason;
    // What the accessibility button does on this desktop ("ALLOW TYPING");
    // empty keeps "OPEN ACCESSIBILITY SETTINGS".
    std::function<QString()> accessibilityButtonText;
};

// The first-run walk: shows the screen of the model's stage and turns the
// screens' requests into model steps and actions.
class OnboardingView : public QWidget {
    Q_OBJECT
public:
    // The search animation reads its own copy of the journal's records;
    // without a journal it searches the practice text alone.
    OnboardingView(OnboardingModel &model, DictoraState &state, ProductPreferences &preferences,
                   std::optional<TranscriptJournal> journal, OnboardingActions actions, QWidget *parent = nullptr);

    ~OnboardingView() override;

    void setModelPreparation(const ModelPreparation &preparation);
    // The permission reasons are asked again; call when a check has new words.
    void refreshPermissionReasons();

    OnboardingStage shownStage() const;
    OnboardingStageShell *currentScreen() const;
    OnboardingStageShell *screen(OnboardingStage stage) const { return m_screens.at(stage); }
    // The search animation's state, for whoever wants to wait on it.
    bool isSearchAnimationFinished() const;
    // Jumps to the end of the search animation.
    void finishSearchAnimation();

Q_SIGNALS:
    void searchAnimationFinished();

private:
    void showStage();

    OnboardingModel &m_model;
    OnboardingActions m_actions;

    QStackedWidget *m_stack;
    std::map<OnboardingStage, OnboardingStageShell *> m_screens;
    PermissionsScreen *m_permissions;
    PracticeScreen *m_practice;
    SearchProofScreen *m_search;
    std::optional<OnboardingStage> m_lastStage;
};

} // namespace dictora
