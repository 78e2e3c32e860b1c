#pragma once

#include "history/HistoryIndex.h"
#include "history/TranscriptJournal.h"
#include "onboarding/OnboardingModel.h"
#include "onboarding/ui/OnboardingStageShell.h"

#include <QTimer>

#include <optional>

class QLineEdit;
class QListWidget;

namespace dictora {

// Types the first practice word into a search field and shows what History
// would find, landing on the practice record.
class SearchProofScreen : public OnboardingStageShell {
    Q_OBJECT
public:
    // The animation reads its own copy of the journal's records, so the
    // History window's search stays as the user left it; without a journal
    // it searches the practice text alone.
    SearchProofScreen(const OnboardingModel &model, std::optional<TranscriptJournal> journal,
                      QWidget *parent = nullptr);

    void start();
    void stop();
    // Jumps to the end of the animation.
    void finish();
    bool isFinished() const { return m_finished; }

Q_SIGNALS:
    void finished();
    void nextRequested();

private:
    void typeNextCharacter();
    void showResults(bool final);

    const OnboardingModel &m_model;
    std::optional<TranscriptJournal> m_journal;
    QLineEdit *m_field;
    QListWidget *m_results;
    QPushButton *m_next;
    QTimer m_typing;
    QString m_word;
    HistoryIndex m_index; // the search's own copy of the journal
    bool m_finished = false;
};

// The first word of a transcript, as the search animation types it.
QString firstSearchWord(const QString &transcript);

} // namespace dictora
