#pragma once

#include "history/TranscriptJournal.h"

#include <QList>
#include <QMutex>

#include <functional>

namespace dictora {

// Records the journal refused (a full disk, a folder made read-only, the file
// replaced by a folder) wait here in memory, in order, and go in ahead of the
// next record as soon as the journal accepts writes again. One queue per
// journal file for the whole process, like the journal's lock.
class PendingJournal {
public:
    static PendingJournal &of(const TranscriptJournal &journal);

    using Log = std::function<void(const QString &message)>;
    // Where "kept" and "appended" lines go; called from worker threads.
    void setLog(Log log);

    // Writes what waits, then the record. On failure the record joins the
    // queue (unless a record with its id already waits there: the failure
    // record of a dictation never displaces the dictation's own record) and
    // the journal's error is thrown.
    void append(const TranscriptRecord &record);
    // Writes what waits; returns how many went in. Throws, keeping the rest,
    // while the journal still refuses.
    qsizetype flush();

    qsizetype count() const;
    QList<TranscriptRecord> pending() const;

private:
    explicit PendingJournal(TranscriptJournal journal);
    qsizetype flushLocked();
    void log(const QString &message) const;

    TranscriptJournal m_journal;
    mutable QMutex m_mutex;
    QList<TranscriptRecord> m_pending;
    Log m_log;
};

} // namespace dictora
