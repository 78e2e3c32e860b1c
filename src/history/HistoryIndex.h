#pragma once

#include "history/TranscriptRecord.h"

#include <QList>
#include <QString>

namespace dictora {

// What the History list needs from one read of the journal, prepared off the
// main thread: a search or a filter change then only walks ready data.
// Copies share their lists.
struct HistoryIndex {
    QList<TranscriptRecord> records; // file order, exactly as the journal holds them
    // Every record's search key, each followed by U+FFFF, in file order; one
    // text, so a search is one fast scan rather than a call per record.
    QString searchText;
    QList<qsizetype> keyStarts;      // where each record's key starts; one more at the end
    static constexpr QChar kKeyEnd = QChar(0xFFFF);
    QList<int> newestFirst;          // indices of records in display order
    QList<int> years;                // local years of savedAt, descending, distinct

    // Uses up to `threads` threads for the search keys (0: one per core).
    static HistoryIndex build(QList<TranscriptRecord> records, int threads = 0);
};

// Display order: savedAt descending; equal instants by id string, greater
// first; otherwise file order.
QList<int> newestFirstOrder(const QList<TranscriptRecord> &records);

} // namespace dictora
