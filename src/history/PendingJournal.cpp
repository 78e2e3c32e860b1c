#include "history/PendingJournal.h"

#include <QFileInfo>
#include <QHash>

namespace dictora {

PendingJournal::PendingJournal(TranscriptJournal journal) : m_journal(std::move(journal)) {}

PendingJournal &PendingJournal::of(const TranscriptJournal &journal)
{
    // Never destroyed: a worker may still append while the process exits.
    static QMutex *registryLock = new QMutex;
    static auto *registry = new QHash<QString, PendingJournal *>;
    const QString key = QFileInfo(journal.filePath()).absoluteFilePath();
    QMutexLocker lock(registryLock);
    PendingJournal *&queue = (*registry)[key];
    if (!queue)
        queue = new PendingJournal(journal);
    return *queue;
}

void PendingJournal::setLog(Log log)
{
    QMutexLocker lock(&m_mutex);
    m_log = std::move(log);
}

void PendingJournal::log(const QString &message) const
{
    if (m_log)
        m_log(message);
}

qsizetype PendingJournal::flushLocked()
{
    qsizetype written = 0;
    try {
        while (!m_pending.isEmpty()) {
            m_journal.append(m_pending.constFirst());
            m_pending.removeFirst();
            ++written;
        }
    } catch (const Error &) {
        if (written > 0)
            log(QStringLiteral("pending journal records appended count=%1 stillPending=%2").arg(written).arg(m_pending.size()));
        throw;
    }
    if (written > 0)
        log(QStringLiteral("pending journal records appended count=%1").arg(written));
    return written;
}

void PendingJournal::append(const TranscriptRecord &record)
{
    QMutexLocker lock(&m_mutex);
    const bool alreadyWaiting = std::any_of(m_pending.cbegin(), m_pending.cend(),
        [&record](const TranscriptRecord &r) { return r.id == record.id; });
    try {
        flushLocked();
        if (alreadyWaiting)
            return; // went in just now, with the dictation's own text
        m_journal.append(record);
    } catch (const Error &e) {
        if (alreadyWaiting) {
            log(QStringLiteral("journal record still kept in memory id=%1 pending=%2")
                    .arg(uuidString(record.id))
                    .arg(m_pending.size()));
        } else {
            m_pending.append(record);
            log(QStringLiteral("journal record kept in memory until the journal accepts writes id=%1 pending=%2 error=%3")
                    .arg(uuidString(record.id))
                    .arg(m_pending.size())
                    .arg(e.description()));
        }
        throw;
    }
}

qsizetype PendingJournal::flush()
{
    QMutexLocker lock(&m_mutex);
    return flushLocked();
}

qsizetype PendingJournal::count() const
{
    QMutexLocker lock(&m_mutex);
    return m_pending.size();
}

QList<TranscriptRecord> PendingJournal::pending() const
{
    QMutexLocker lock(&m_mutex);
    return m_pending;
}

} // namespace dictora
