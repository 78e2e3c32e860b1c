#include "history/HistoryStore.h"

#include "history/PendingJournal.h"
#include "history/TranscriptHistoryArchive.h"

#include "core/Async.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

namespace dictora {

namespace {

// The newest lines come first, in a small batch, so a long History shows its
// top rows at once; the rest is read in larger batches behind it.
constexpr qint64 kFirstPageBytes = 64 * 1024;
constexpr qint64 kBatchBytes = 8 * 1024 * 1024;

} // namespace

struct HistoryStore::Loaded {
    HistoryIndex index;
    std::optional<QString> error;
};

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
    QList<TranscriptRecord> out;
    for (const int i : filteredIndexes())
        out.append(m_index.records.at(i));
    return out;
}

QList<int> HistoryStore::filteredIndexes() const
{
    return HistoryFilter::select(m_index, m_query);
}

QList<int> HistoryStore::availableFilterYears() const
{
    return HistoryFilter::availableYears(m_index.years, m_query.year);
}

void HistoryStore::setIndex(HistoryIndex index)
{
    m_index = std::move(index);
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
    load([this](const std::optional<QString> &error) {
        if (error)
            setNotice(QStringLiteral("History Error"), QStringLiteral("History could not be opened: ") + *error);
        Q_EMIT reloaded();
    });
}

void HistoryStore::load(LoadDone done)
{
    m_waiting.append(std::move(done));
    if (!m_loading)
        startLoad();
}

void HistoryStore::startLoad()
{
    m_loading = true;
    // Only a History not shown yet gets its newest page first: a reload of a
    // shown list must not shrink it for a moment.
    const bool firstPage = !m_loadedOnce;
    QPointer<HistoryStore> guard(this);
    // Posted through the application object and checked on its thread, so a
    // store deleted meanwhile is never touched.
    const auto post = [guard](auto apply) {
        QMetaObject::invokeMethod(QCoreApplication::instance(), [guard, apply = std::move(apply)]() mutable {
            if (guard)
                apply(*guard);
        }, Qt::QueuedConnection);
    };
    runElsewhere([journal = m_journal, firstPage, post, done = std::exchange(m_waiting, {})]() mutable {
        Loaded loaded;
        try {
            // Dictations the journal refused earlier go in first, so History shows them.
            PendingJournal::of(journal).flush();
        } catch (const Error &) {
            // Still refused: they stay in memory and the read shows what is on disk.
        }
        try {
            QList<QList<TranscriptRecord>> batches; // newest first
            qsizetype total = 0;
            journal.readNewestFirst(kFirstPageBytes, kBatchBytes, [&](const QByteArray &lines, bool more) {
                batches.append(TranscriptJournal::decodeLines(lines));
                total += batches.last().size();
                // The newest page is shown at once when there is more to read;
                // a short journal arrives whole.
                if (firstPage && more && batches.size() == 1) {
                    post([page = HistoryIndex::build(batches.first(), 1)](HistoryStore &store) mutable {
                        store.applyFirstPage(std::move(page));
                    });
                }
                return true;
            });
            QList<TranscriptRecord> records;
            records.reserve(total);
            for (qsizetype i = batches.size() - 1; i >= 0; --i) {
                records.append(std::move(batches[i]));
                batches[i] = {};
            }
            loaded.index = HistoryIndex::build(std::move(records));
        } catch (...) {
            loaded.error = errorMessage(std::current_exception());
        }
        post([loaded = std::move(loaded), done = std::move(done)](HistoryStore &store) mutable {
            store.finishLoad(std::move(loaded), std::move(done));
        });
    });
}

void HistoryStore::applyFirstPage(HistoryIndex page)
{
    if (!m_loading || m_loadedOnce)
        return;
    const bool wasPartial = std::exchange(m_partial, true);
    if (!wasPartial)
        m_beforeFirstPage = m_index;
    // Partial already when the page is announced, so views can say so.
    setIndex(std::move(page));
    if (!wasPartial)
        Q_EMIT loadingOlderChanged(true);
}

void HistoryStore::finishLoad(Loaded loaded, QList<LoadDone> done)
{
    m_loading = false;
    // Not partial any more by the time the new records are announced.
    const bool wasPartial = std::exchange(m_partial, false);
    if (!loaded.error) {
        m_loadedOnce = true;
        setIndex(std::move(loaded.index));
    } else if (wasPartial) {
        setIndex(std::exchange(m_beforeFirstPage, {}));
    }
    m_beforeFirstPage = {};
    if (wasPartial)
        Q_EMIT loadingOlderChanged(false);
    if (!m_waiting.isEmpty())
        startLoad();
    for (const LoadDone &callback : done)
        callback(loaded.error);
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
                load([this, destination, count](const std::optional<QString> &) {
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
                load([this](const std::optional<QString> &) {
                    setArchiving(false);
                    Q_EMIT archiveFinished(false);
                });
            }
        });
}

} // namespace dictora
