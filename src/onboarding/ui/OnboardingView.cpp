#include "onboarding/ui/OnboardingView.h"

#include "onboarding/ui/MicrophonePositionScreen.h"
#include "onboarding/ui/PracticeScreen.h"
#include "onboarding/ui/ReadyScreen.h"
#include "onboarding/ui/SavedProofScreen.h"
#include "onboarding/ui/SnippetsScreen.h"

#include <QStackedWidget>
#include <QVBoxLayout>

namespace dictora {

namespace {

void run(const std::function<void()> &action)
{
    if (action)
        action();
}

} // namespace

OnboardingView::OnboardingView(OnboardingModel &model, DictoraState &state, ProductPreferences &preferences,
                               std::optional<TranscriptJournal> journal, OnboardingActions actions, QWidget *parent)
    : QWidget(parent), m_model(model), m_actions(std::move(actions)), m_stack(new QStackedWidget(this)),
      m_permissions(new PermissionsScreen(model, m_actions.microphoneReason, m_actions.accessibilityReason,
          m_actions.accessibilityButtonText, m_stack)),
      m_practice(new PracticeScreen(model, state, preferences, m_stack)),
      m_search(new SearchProofScreen(model, std::move(journal), m_stack))
{
    setObjectName(QStringLiteral("OnboardingView"));
    auto *position = new MicrophonePositionScreen(preferences, m_stack);
    auto *snippets = new SnippetsScreen(m_stack);
    auto *saved = new SavedProofScreen(model, m_stack);
    auto *ready = new ReadyScreen(preferences, m_stack);
    m_screens = {
        {OnboardingStage::permissions, m_permissions}, {OnboardingStage::microphonePosition, position},
        {OnboardingStage::snippets, snippets},         {OnboardingStage::practice, m_practice},
        {OnboardingStage::savedProof, saved},          {OnboardingStage::searchProof, m_search},
        {OnboardingStage::ready, ready},
    };
    for (OnboardingStage stage : allOnboardingStages())
        m_stack->addWidget(m_screens.at(stage));

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_stack);

    connect(m_permissions, &PermissionsScreen::microphoneRequested, this, [this] { run(m_actions.requestMicrophone); });
    connect(m_permissions, &PermissionsScreen::microphoneSettingsRequested, this,
            [this] { run(m_actions.openMicrophoneSettings); });
    connect(m_permissions, &PermissionsScreen::accessibilitySettingsRequested, this,
            [this] { run(m_actions.openAccessibilitySettings); });
    connect(m_permissions, &PermissionsScreen::downloadRetryRequested, this, [this] { run(m_actions.retryDownload); });
    connect(position, &MicrophonePositionScreen::nextRequested, this,
            [this] { m_model.setStage(OnboardingStage::snippets); });
    connect(snippets, &SnippetsScreen::useSnippetsRequested, this, [this, &preferences] {
        preferences.setSnippetsEnabled(true);
        run(m_actions.openSnippets);
    });
    connect(snippets, &SnippetsScreen::nextRequested, this, [this] { m_model.finishConfiguration(); });
    connect(saved, &SavedProofScreen::nextRequested, this, [this] { m_model.setStage(OnboardingStage::searchProof); });
    connect(m_search, &SearchProofScreen::nextRequested, this, [this] { m_model.setStage(OnboardingStage::ready); });
    connect(m_search, &SearchProofScreen::finished, this, &OnboardingView::searchAnimationFinished);
    connect(ready, &ReadyScreen::finishRequested, this, [this] { run(m_actions.finish); });

    connect(&m_model, &OnboardingModel::changed, this, &OnboardingView::showStage);
    showStage();
}

OnboardingView::~OnboardingView() = default;

void OnboardingView::setModelPreparation(const ModelPreparation &preparation)
{
    m_permissions->setModelPreparation(preparation);
}

void OnboardingView::refreshPermissionReasons()
{
    m_permissions->refresh();
}

OnboardingStage OnboardingView::shownStage() const
{
    for (auto &[stage, shell] : m_screens)
        if (shell == m_stack->currentWidget())
            return stage;
    return OnboardingStage::permissions;
}

OnboardingStageShell *OnboardingView::currentScreen() const
{
    return static_cast<OnboardingStageShell *>(m_stack->currentWidget());
}

bool OnboardingView::isSearchAnimationFinished() const
{
    return m_search->isFinished();
}

void OnboardingView::finishSearchAnimation()
{
    m_search->finish();
}

void OnboardingView::showStage()
{
    const OnboardingStage stage = m_model.stage();
    m_stack->setCurrentWidget(m_screens.at(stage));
    if (m_lastStage == stage)
        return;
    m_lastStage = stage;
    if (stage == OnboardingStage::practice)
        m_practice->restart();
    if (stage == OnboardingStage::searchProof)
        m_search->start();
    else
        m_search->stop();
}

} // namespace dictora
