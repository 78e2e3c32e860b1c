#pragma once

#include "core/Error.h"
#include "history/TranscriptRecord.h"

#include <QList>
#include <QMutex>
#include <QString>

#include <functional>

namespace dictora {

class JournalError : public Error {
public:
    using Error::Error;
};

// The append-only transcripts.jsonl. Copies share the file and the one
// process-wide lock that serialises every journal operation. Call it off the
// main thread: appends wait for the disk.
class TranscriptJournal {
public:
    explicit TranscriptJournal(QString filePath);

    QString filePath() const { return m_filePath; }

    // Creates the folder (0700) and an empty file (0600) when missing.
    void prepare() const;
    // One line, flushed to stable storage before returning. It always starts
    // on a line of its own; a failed append leaves the file as it found it.
    void append(const TranscriptRecord &record) const;
    // Records in file order; undecodable lines are skipped and left in place.
    QList<TranscriptRecord> readAll() const;

    // Holds the lock for a sequence of operations (read, archive, clear)
    // that nothing else may interleave with.
    class ExclusiveAccess {
    public:
        QList<TranscriptRecord> readAll() const;
        // Atomic whole-file rewrite.
        void replaceAll(const QList<TranscriptRecord> &records) const;

    private:
        friend class TranscriptJournal;
        explicit ExclusiveAccess(const TranscriptJournal &journal);
        const TranscriptJournal &m_journal;
        QMutexLocker<QMutex> m_lock;
    };
    ExclusiveAccess lock() const { return ExclusiveAccess(*this); }

    static QList<TranscriptRecord> decodeLines(const QByteArray &bytes);

    // Whole lines of the journal, newest first: `sink` gets the bytes of
    // about `chunkBytes` of complete lines at a time (the first batch at most
    // `firstChunkBytes`), each batch in file order, with whether older lines
    // remain; returning false stops.
    // Decoding them with decodeLines gives, batch by batch, exactly what
    // readAll gives. The lock is held only to open the file and take its size:
    // the journal grows only past that size, or is replaced by a rename, so
    // the bytes before it never change under the open file.
    using LineSink = std::function<bool(const QByteArray &lines, bool more)>;
    void readNewestFirst(qint64 firstChunkBytes, qint64 chunkBytes, const LineSink &sink) const;
    // The same scan over any `size` bytes that `read(offset, length)` returns.
    using ByteSource = std::function<QByteArray(qint64 offset, qint64 length)>;
    static void scanNewestFirst(qint64 size, qint64 firstChunkBytes, qint64 chunkBytes, const ByteSource &read,
        const LineSink &sink);

private:
    static QMutex &ioGate();
    void prepareUnlocked() const;
    void appendUnlocked(const TranscriptRecord &record) const;
    QList<TranscriptRecord> readAllUnlocked() const;
    void replaceAllUnlocked(const QList<TranscriptRecord> &records) const;

    QString m_filePath;
};

} // namespace dictora
