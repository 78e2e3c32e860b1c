#include "history/HistoryStore.h"

#include "history/PendingJournal.h"
#include "history/TranscriptHistoryArchive.h"

#include "core/Async.h"

#include <QFileInfo>
#include <QtConcurrent/QtConcurrentMap>

#include <algorithm>
#include <numeric>

namespace dictora {

namespace {

struct ReadResult {
    QList<TranscriptRecord> records;
    QList<QString> searchKeys; // made here, so the first search after a reload is instant
    std::optional<QString> error;
};

ReadResult readJournal(const TranscriptJournal &journal)
{
    try {
        // Dictations the journal refused earlier go in first, so History shows them.
        PendingJournal::of(journal).flush();
    } catch (const Error &) {
        // Still refused: they stay in memory and the read shows what is on disk.
    }
    try {
        ReadResult result{journal.readAll(), {}, std::nullopt};
        // Normalising every transcript is as costly as decoding it: use every core.
        const qsizetype count = result.records.size();
        result.searchKeys.resize(count);
        std::vector<qsizetype> indexes(static_cast<size_t>(count));
        std::iota(indexes.begin(), indexes.end(), qsizetype(0));
        const auto makeKey = [&result](qsizetype i) {
            result.searchKeys[i] = HistoryFilter::searchKey(result.records.at(i).transcript);
        };
        if (count < 4096)
            std::for_each(indexes.begin(), indexes.end(), makeKey);
        else
            QtConcurrent::blockingMap(indexes, makeKey);
        return result;
    } catch (...) {
        return {{}, {}, errorMessage(std::current_exception())};
    }
}

} // namespace

HistoryStore::HistoryStore(TranscriptJournal journal, QObject *parent)
    : QObject(parent), m_journal(std::move(journal))
{
}

void HistoryStore::setQuery(const QString &query)
{
    if (m_query.search == query)
        return;
    m_query.search = query;
    Q_EMIT queryChanged(query);
}

#define DICTORA_SET_FILTER(member, value)   \
    if (m_query.member == value)            \
        return;                             \
    m_query.member = value;                 \
    Q_EMIT filtersChanged();

void HistoryStore::setFilterHour(std::optional<int> hour) { DICTORA_SET_FILTER(hour, hour) }
void HistoryStore::setFilterDay(std::optional<int> day) { DICTORA_SET_FILTER(day, day) }
void HistoryStore::setFilterMonth(std::optional<int> month) { DICTORA_SET_FILTER(month, month) }
void HistoryStore::setFilterYear(std::optional<int> year) { DICTORA_SET_FILTER(year, year) }
#undef DICTORA_SET_FILTER

void HistoryStore::setFilterPanelPresented(bool presented)
{
    if (m_filterPanelPresented == presented)
        return;
    m_filterPanelPresented = presented;
    Q_EMIT filterPanelPresentedChanged(presented);
}

void HistoryStore::resetTimeFilters()
{
    if (!m_query.hasTimeFilter())
        return;
    m_query.hour = m_query.day = m_query.month = m_query.year = std::nullopt;
    Q_EMIT filtersChanged();
}

void HistoryStore::clearNotice()
{
    if (!m_notice)
        return;
    m_notice.reset();
    Q_EMIT noticeChanged();
}

QList<TranscriptRecord> HistoryStore::filteredRecords() const
{
    return HistoryFilter::apply(m_records, m_searchKeys, m_query);
}

QList<int> HistoryStore::availableFilterYears() const
{
    return HistoryFilter::availableYears(m_records, m_query.year);
}

void HistoryStore::setRecords(QList<TranscriptRecord> records, QList<QString> searchKeys)
{
    m_records = std::move(records);
    m_searchKeys = std::move(searchKeys);
    Q_EMIT recordsChanged();
}

void HistoryStore::setNotice(const QString &title, const QString &message)
{
    m_notice = HistoryNotice{QUuid::createUuid(), title, message};
    Q_EMIT noticeChanged();
}

void HistoryStore::setArchiving(bool archiving)
{
    if (m_archiving == archiving)
        return;
    m_archiving = archiving;
    Q_EMIT isArchivingChanged(archiving);
}

void HistoryStore::reload()
{
    runElsewhere(this, [journal = m_journal] { return readJournal(journal); },
        [this](ReadResult result) {
            if (result.error)
                setNotice(QStringLiteral("History Error"), QStringLiteral("History could not be opened: ") + *result.error);
            else
                setRecords(std::move(result.records), std::move(result.searchKeys));
            Q_EMIT reloaded();
        });
}

void HistoryStore::readBackAfterArchive(std::function<void()> then)
{
    runElsewhere(this, [journal = m_journal] { return readJournal(journal); },
        [this, then = std::move(then)](ReadResult result) {
            if (!result.error)
                setRecords(std::move(result.records), std::move(result.searchKeys));
            then();
        });
}

void HistoryStore::archiveAndClear(const QString &destination)
{
    if (m_archiving)
        return;
    setArchiving(true);
    struct Outcome {
        std::optional<TranscriptHistoryArchive> archive;
        QString error;
    };
    runElsewhere(this,
        [journal = m_journal, destination]() -> Outcome {
            try {
                return {dictora::archiveAndClear(journal, destination, QDateTime::currentDateTimeUtc()), {}};
            } catch (...) {
                return {std::nullopt, errorMessage(std::current_exception())};
            }
        },
        [this, destination](Outcome outcome) {
            if (outcome.archive) {
                const qint64 count = outcome.archive->recordCount;
                readBackAfterArchive([this, destination, count] {
                    setQuery(QString());
                    resetTimeFilters();
                    setFilterPanelPresented(false);
                    setNotice(QStringLiteral("History Archived"),
                        QStringLiteral("Saved and verified %1 transcriptions in %2. Your in-app History is now clear.")
                            .arg(count)
                            .arg(QFileInfo(destination).fileName()));
                    setArchiving(false);
                    Q_EMIT archiveFinished(true);
                });
            } else {
                setNotice(QStringLiteral("Archive Failed"), outcome.error);
                readBackAfterArchive([this] {
                    setArchiving(false);
                    Q_EMIT archiveFinished(false);
                });
            }
        });
}

} // namespace dictora
