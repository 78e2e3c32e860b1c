#pragma once

#include "history/HistoryFilter.h"
#include "history/TranscriptJournal.h"

#include <QObject>
#include <QUuid>

#include <functional>

namespace dictora {

struct HistoryNotice {
    QUuid id = QUuid::createUuid(); // fresh per notice, so equal texts still show twice
    QString title;
    QString message;
};

// The model behind the History window. Main thread only; every file operation
// runs on a worker thread with a copy of the journal and reports back here.
class HistoryStore : public QObject {
    Q_OBJECT

public:
    explicit HistoryStore(TranscriptJournal journal, QObject *parent = nullptr);

    const QList<TranscriptRecord> &records() const { return m_index.records; }
    // The records with their search keys and display order.
    const HistoryIndex &index() const { return m_index; }
    QString query() const { return m_query.search; }
    std::optional<int> filterHour() const { return m_query.hour; }
    std::optional<int> filterDay() const { return m_query.day; }
    std::optional<int> filterMonth() const { return m_query.month; }
    std::optional<int> filterYear() const { return m_query.year; }
    bool isFilterPanelPresented() const { return m_filterPanelPresented; }
    bool isArchiving() const { return m_archiving; }
    std::optional<HistoryNotice> notice() const { return m_notice; }

    void setQuery(const QString &query);
    void setFilterHour(std::optional<int> hour);
    void setFilterDay(std::optional<int> day);
    void setFilterMonth(std::optional<int> month);
    void setFilterYear(std::optional<int> year);
    void setFilterPanelPresented(bool presented);
    void resetTimeFilters();
    void clearNotice();

    // Derived on every call.
    QList<TranscriptRecord> filteredRecords() const;
    // The same list as indices into records().
    QList<int> filteredIndexes() const;
    QList<int> availableFilterYears() const;
    bool hasActiveTimeFilter() const { return m_query.hasTimeFilter(); }

    // True while the list holds only the newest part of the journal and the
    // rest is still being read (the first load of a long History).
    bool isLoadingOlder() const { return m_partial; }

    // Asynchronous; `reloaded` / `archiveFinished` tell when the result is
    // applied. Reloads asked for while one runs are served by one more read
    // after it, so `reloaded` always reflects the file as it was when asked.
    void reload();
    void archiveAndClear(const QString &destination);

Q_SIGNALS:
    void recordsChanged();
    void queryChanged(const QString &query);
    void filtersChanged();
    void filterPanelPresentedChanged(bool presented);
    void isArchivingChanged(bool archiving);
    void noticeChanged();
    void reloaded();
    void loadingOlderChanged(bool loading);
    void archiveFinished(bool succeeded);

private:
    using LoadDone = std::function<void(const std::optional<QString> &error)>;
    struct Loaded;
    void load(LoadDone done);
    void startLoad();
    void applyFirstPage(HistoryIndex page);
    void finishLoad(Loaded loaded, QList<LoadDone> done);
    void setIndex(HistoryIndex index);
    void setNotice(const QString &title, const QString &message);
    void setArchiving(bool archiving);

    TranscriptJournal m_journal;
    HistoryIndex m_index;
    HistoryIndex m_beforeFirstPage; // put back if the read that showed a first page fails
    bool m_loading = false;
    bool m_loadedOnce = false;
    bool m_partial = false;
    QList<LoadDone> m_waiting; // served by the next read
    HistoryQuery m_query;
    bool m_filterPanelPresented = false;
    bool m_archiving = false;
    std::optional<HistoryNotice> m_notice;
};

} // namespace dictora
