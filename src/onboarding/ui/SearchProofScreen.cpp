#include "onboarding/ui/SearchProofScreen.h"

#include "core/Async.h"
#include "history/HistoryFilter.h"

#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QRegularExpression>
#include <QVBoxLayout>

namespace dictora {

namespace {
constexpr int kTypingIntervalMs = 140;
} // namespace

QString firstSearchWord(const QString &transcript)
{
    static const QRegularExpression word(QStringLiteral("[\\w'’-]+"), QRegularExpression::UseUnicodePropertiesOption);
    const auto match = word.match(transcript);
    return match.hasMatch() ? match.captured(0) : transcript.trimmed();
}

SearchProofScreen::SearchProofScreen(const OnboardingModel &model, std::optional<TranscriptJournal> journal,
                                     QWidget *parent)
    : OnboardingStageShell(parent), m_model(model), m_journal(std::move(journal)), m_field(new QLineEdit(this)),
      m_results(new QListWidget(this)), m_next(makeDisplayButton(QStringLiteral("NEXT"), QStringLiteral("next"), this))
{
    setHeadline(QStringLiteral("EVERY WORD. FOREVER."));
    setDetail(QStringLiteral("Watch your first word find the exact saved transcript."));
    m_field->setObjectName(QStringLiteral("searchField"));
    m_field->setReadOnly(true);
    m_field->setPlaceholderText(QStringLiteral("Search"));
    m_field->setClearButtonEnabled(false);
    m_results->setObjectName(QStringLiteral("searchResults"));
    m_results->setFocusPolicy(Qt::NoFocus);
    m_results->setWordWrap(true);
    m_results->setMaximumHeight(260);
    m_results->setSpacing(4);
    m_next->setEnabled(false);
    connect(m_next, &QPushButton::clicked, this, &SearchProofScreen::nextRequested);
    content()->addWidget(m_field);
    content()->addWidget(m_results);
    content()->addStretch(1);
    content()->addWidget(m_next);

    m_typing.setInterval(kTypingIntervalMs);
    connect(&m_typing, &QTimer::timeout, this, &SearchProofScreen::typeNextCharacter);
}

void SearchProofScreen::start()
{
    m_finished = false;
    m_next->setEnabled(false);
    m_field->clear();
    m_results->clear();
    m_word = firstSearchWord(m_model.practiceTranscript());
    m_index = {};
    if (!m_journal) {
        m_typing.start();
        return;
    }
    runElsewhere(this,
        [journal = *m_journal] {
            QList<TranscriptRecord> records;
            try {
                records = journal.readAll();
            } catch (...) {
                // Unreadable: the animation still shows the practice text.
            }
            return HistoryIndex::build(std::move(records));
        },
        [this](HistoryIndex index) {
            m_index = std::move(index);
            // The user may have moved on while the journal was read.
            if (m_model.stage() == OnboardingStage::searchProof && !m_finished)
                m_typing.start();
        });
}

void SearchProofScreen::stop()
{
    m_typing.stop();
}

void SearchProofScreen::typeNextCharacter()
{
    const QString typed = m_field->text();
    if (typed.size() >= m_word.size()) {
        finish();
        return;
    }
    m_field->setText(m_word.left(typed.size() + 1));
    showResults(false);
}

void SearchProofScreen::finish()
{
    if (m_finished)
        return;
    m_typing.stop();
    m_field->setText(m_word);
    showResults(true);
    m_finished = true;
    m_next->setEnabled(true);
    Q_EMIT finished();
}

void SearchProofScreen::showResults(bool final)
{
    const QString practice = m_model.practiceTranscript();
    QList<TranscriptRecord> found;
    if (!m_index.records.isEmpty()) {
        HistoryQuery query;
        query.search = m_field->text();
        for (int i : HistoryFilter::select(m_index, query))
            found.append(m_index.records.at(i));
    } else if (practice.contains(m_field->text(), Qt::CaseInsensitive)) {
        TranscriptRecord record;
        record.transcript = practice;
        if (m_model.practiceSavedAt())
            record.savedAt = *m_model.practiceSavedAt();
        found.append(record);
    }
    m_results->clear();
    for (const TranscriptRecord &record : found) {
        const QString when = QLocale().toString(record.savedAt.toLocalTime(), QLocale::ShortFormat);
        auto *item = new QListWidgetItem(record.transcript + QStringLiteral("\n") + when, m_results);
        const bool isPractice = record.transcript.trimmed() == practice;
        item->setData(Qt::UserRole, isPractice);
        if (final && isPractice) {
            QFont f = item->font();
            f.setBold(true);
            item->setFont(f);
            item->setBackground(QColor(255, 90, 54, 70));
            m_results->setCurrentItem(item);
            m_results->scrollToItem(item);
        }
    }
}

} // namespace dictora
