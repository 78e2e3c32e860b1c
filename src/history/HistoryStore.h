#pragma once

#include "history/HistoryFilter.h"
#include "history/TranscriptJournal.h"

#include <QObject>
#include <QUuid>

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

    const QList<TranscriptRecord> &records() const { return m_records; }
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
    QList<int> availableFilterYears() const;
    bool hasActiveTimeFilter() const { return m_query.hasTimeFilter(); }

    // Asynchronous; `reloaded` / `archiveFinished` tell when the result is applied.
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
    void archiveFinished(bool succeeded);

private:
    void setRecords(QList<TranscriptRecord> records, QList<QString> searchKeys);
    void setNotice(const QString &title, const QString &message);
    void setArchiving(bool archiving);
    void readBackAfterArchive(std::function<void()> then);

    TranscriptJournal m_journal;
    QList<TranscriptRecord> m_records;
    // Index-aligned with m_records; made with them off the main thread.
    QList<QString> m_searchKeys;
    HistoryQuery m_query;
    bool m_filterPanelPresented = false;
    bool m_archiving = false;
    std::optional<HistoryNotice> m_notice;
};

} // namespace dictora
