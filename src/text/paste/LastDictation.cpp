#include "text/paste/LastDictation.h"

#include "core/Async.h"
#include "core/Error.h"
#include "history/PendingJournal.h"
#include "text/paste/PasteService.h"

#include <QTimer>

namespace dictora {

namespace {
constexpr int kFocusPollMs = 50;
constexpr qint64 kTailBytes = 64 * 1024;
} // namespace

LastDictation::LastDictation(TranscriptJournal journal, PasteService &paste, const RuntimeLog &log, QObject *parent)
    : QObject(parent), m_journal(std::move(journal)), m_paste(paste), m_log(log)
{
}

std::optional<TranscriptRecord> LastDictation::newest(const TranscriptJournal &journal)
{
    // What the journal refused is newer than all it holds.
    const QList<TranscriptRecord> waiting = PendingJournal::of(journal).pending();
    if (!waiting.isEmpty())
        return waiting.last();
    std::optional<TranscriptRecord> found;
    journal.readNewestFirst(kTailBytes, kTailBytes, [&found](const QByteArray &lines, bool) {
        const QList<TranscriptRecord> records = TranscriptJournal::decodeLines(lines);
        if (!records.isEmpty())
            found = records.last();
        return !found;
    });
    return found;
}

QString LastDictation::whyNothingToUse(const std::optional<TranscriptRecord> &record)
{
    if (!record)
        return QStringLiteral("There is no dictation yet.");
    if (!record->transcript.trimmed().isEmpty())
        return {};
    if (record->outcome == TranscriptOutcome::failed)
        return QStringLiteral("The last dictation failed and has no text: %1")
            .arg(record->error.value_or(QStringLiteral("no reason was recorded.")));
    return QStringLiteral("The last dictation heard no speech, so it has no text.");
}

void LastDictation::withNewest(std::function<void(std::optional<TranscriptRecord>)> use)
{
    const TranscriptJournal journal = m_journal;
    runElsewhere(
        this,
        [journal]() -> std::pair<std::optional<TranscriptRecord>, QString> {
            try {
                return {newest(journal), QString()};
            } catch (...) {
                return {std::nullopt, errorMessage(std::current_exception())};
            }
        },
        [this, use = std::move(use)](std::pair<std::optional<TranscriptRecord>, QString> result) {
            if (!result.second.isEmpty())
                m_log.write(QStringLiteral("last dictation unreadable error=") + result.second);
            use(result.first);
        });
}

void LastDictation::pasteLast(Done done)
{
    withNewest([this, done = std::move(done)](const std::optional<TranscriptRecord> &record) {
        if (const QString why = whyNothingToUse(record); !why.isEmpty()) {
            m_log.write(QStringLiteral("paste last refused reason=") + why);
            done(why);
            return;
        }
        paste(*record, done);
    });
}

void LastDictation::copyLast(Done done)
{
    withNewest([this, done = std::move(done)](const std::optional<TranscriptRecord> &record) {
        if (const QString why = whyNothingToUse(record); !why.isEmpty()) {
            done(why);
            return;
        }
        if (!m_paste.copy(record->transcript)) {
            done(QStringLiteral("This desktop offers no clipboard to copy to."));
            return;
        }
        m_log.write(QStringLiteral("last dictation copied id=%1 chars=%2")
                        .arg(uuidString(record->id))
                        .arg(record->transcript.size()));
        done({});
    });
}

void LastDictation::paste(const TranscriptRecord &record, Done done)
{
    if (record.transcript.trimmed().isEmpty()) {
        done(whyNothingToUse(record));
        return;
    }
    m_log.write(QStringLiteral("paste again id=%1 chars=%2").arg(uuidString(record.id)).arg(record.transcript.size()));
    pasteWhenFocused(record.transcript, std::max(1, focusWaitMs / kFocusPollMs), std::move(done));
}

// A menu or our own window may hold the focus a moment longer.
void LastDictation::pasteWhenFocused(QString text, int attemptsLeft, Done done)
{
    if (const std::optional<PasteTarget> target = m_paste.captureTarget()) {
        m_paste.paste(text, *target, [this, done](qint64) {
            const QString error = m_paste.lastError();
            done(error.isEmpty() ? QString() : QStringLiteral("The paste did not reach the window: ") + error);
        });
        return;
    }
    if (attemptsLeft <= 1) {
        m_log.write(QStringLiteral("paste again found no target"));
        done(QStringLiteral("No window of another application has the focus to paste into."));
        return;
    }
    QTimer::singleShot(kFocusPollMs, this, [this, text = std::move(text), attemptsLeft, done = std::move(done)]() mutable {
        pasteWhenFocused(std::move(text), attemptsLeft - 1, std::move(done));
    });
}

} // namespace dictora
