#pragma once

#include "core/Error.h"
#include "history/TranscriptJournal.h"

#include <QDateTime>
#include <QList>

namespace dictora {

class TranscriptHistoryArchiveError : public Error {
public:
    enum class Kind { noHistory, verificationFailed, clearFailed };
    explicit TranscriptHistoryArchiveError(Kind kind);
    Kind kind() const { return m_kind; }

private:
    Kind m_kind;
};

// The file a user's History is moved into: pretty-printed JSON, keys sorted.
struct TranscriptHistoryArchive {
    int formatVersion = 1;
    QString productName = QStringLiteral("Dictora");
    QString productVersion = QStringLiteral("3.1.1");
    QDateTime exportedAt;
    qint64 recordCount = 0;
    QList<TranscriptRecord> records;

    friend bool operator==(const TranscriptHistoryArchive &, const TranscriptHistoryArchive &) = default;

    QByteArray toJson() const;
    static std::optional<TranscriptHistoryArchive> fromJson(const QByteArray &json);
    // "Dictora History yyyy-MM-dd HHmm.json" in local time, POSIX digits.
    static QString suggestedFilename(const QDateTime &at);
};

// Reads every record, writes the archive to `destination` atomically, reads it
// back and compares it field by field, and only then empties the journal, all
// under one hold of the journal lock: a dictation finishing meanwhile waits
// and lands in the emptied journal.
TranscriptHistoryArchive archiveAndClear(const TranscriptJournal &journal, const QString &destination,
    const QDateTime &exportedAt);

namespace detail {
// Test seam: runs between writing the archive and reading it back.
using AfterArchiveWritten = void (*)(const QString &destination);
TranscriptHistoryArchive archiveAndClear(const TranscriptJournal &journal, const QString &destination,
    const QDateTime &exportedAt, AfterArchiveWritten afterWritten);
} // namespace detail

} // namespace dictora
