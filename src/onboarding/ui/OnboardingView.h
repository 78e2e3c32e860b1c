#pragma once

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/TranscriptJournal.h"
#include "onboarding/OnboardingModel.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <map>
#include <optional>

class QButtonGroup;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QSlider;
class QStackedWidget;

namespace dictora {

class KeyboardIllustration;
class OnboardingStageShell;
class PlacementPreview;

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

// Where the speech model stands while onboarding waits for it.
struct ModelPreparation {
    std::optional<int> percent;
    bool failed = false;
};

// The first-run walk: one screen per stage, redrawn from the model, the live
// dictation phase and the preferences.
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
    bool isSearchAnimationFinished() const { return m_searchFinished; }
    // Jumps to the end of the search animation.
    void finishSearchAnimation();

Q_SIGNALS:
    void searchAnimationFinished();

private:
    void buildPermissions();
    void buildMicrophonePosition();
    void buildSnippets();
    void buildPractice();
    void buildSavedProof();
    void buildSearchProof();
    void buildReady();

    void refresh();
    void refreshPermissions();
    void refreshPractice();
    void refreshSavedProof();
    void refreshReady();
    void startSearchAnimation();
    void typeNextSearchCharacter();
    void showSearchResults(bool final);
    void stageEntered(OnboardingStage stage);

    OnboardingModel &m_model;
    DictoraState &m_state;
    ProductPreferences &m_preferences;
    std::optional<TranscriptJournal> m_journal;
    OnboardingActions m_actions;
    ModelPreparation m_preparation;

    QStackedWidget *m_stack;
    std::map<OnboardingStage, OnboardingStageShell *> m_screens;
    std::optional<OnboardingStage> m_lastStage;

    // permissions
    QLabel *m_guidance = nullptr;
    QLabel *m_percent = nullptr;
    QProgressBar *m_progress = nullptr;
    QPushButton *m_allowMicrophone = nullptr;
    QPushButton *m_microphoneSettings = nullptr;
    QPushButton *m_accessibilitySettings = nullptr;
    QPushButton *m_retryDownload = nullptr;

    // microphone position
    PlacementPreview *m_preview = nullptr;
    QButtonGroup *m_sizes = nullptr;
    QSlider *m_opacity = nullptr;

    // practice
    KeyboardIllustration *m_keyboard = nullptr;
    bool m_practiceAttempted = false;

    // saved proof
    QLabel *m_savedText = nullptr;
    QLabel *m_savedTime = nullptr;

    // search proof
    QLineEdit *m_searchField = nullptr;
    QListWidget *m_searchResults = nullptr;
    QPushButton *m_searchNext = nullptr;
    QTimer m_typing;
    QString m_searchWord;
    QList<TranscriptRecord> m_searchRecords;
    QList<QString> m_searchKeys;
    bool m_searchFinished = false;
};

// The first word of a transcript, as the search animation types it.
QString firstSearchWord(const QString &transcript);

} // namespace dictora
