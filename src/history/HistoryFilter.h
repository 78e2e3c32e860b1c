#pragma once

#include "history/HistoryIndex.h"

#include <QList>
#include <QString>

#include <optional>

namespace dictora {

// What the History list is narrowed by: a search text and four calendar
// components of savedAt in the local time zone.
struct HistoryQuery {
    QString search;
    std::optional<int> hour;  // 0-23
    std::optional<int> day;   // 1-31
    std::optional<int> month; // 1-12
    std::optional<int> year;

    bool hasTimeFilter() const { return hour || day || month || year; }
};

namespace HistoryFilter {

// Case- and diacritic-insensitive form used for search ("Café" → "cafe").
QString searchKey(const QString &text);
// Kept records, newest savedAt first; equal instants by id string, greater first.
QList<TranscriptRecord> apply(const QList<TranscriptRecord> &records, const HistoryQuery &query);
// The same selection over a prepared index, as indices into index.records.
QList<int> select(const HistoryIndex &index, const HistoryQuery &query);
// Distinct local years of the records' savedAt, descending.
QList<int> recordYears(const QList<TranscriptRecord> &records);
// Those years, the current year and the chosen year; descending.
QList<int> availableYears(const QList<int> &recordYears, std::optional<int> chosenYear);

} // namespace HistoryFilter

} // namespace dictora
