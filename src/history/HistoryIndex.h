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
    QList<QString> searchKeys;       // index-aligned with records
    QList<int> newestFirst;          // indices of records in display order
    QList<int> years;                // local years of savedAt, descending, distinct

    // Uses up to `threads` threads for the search keys (0: one per core).
    static HistoryIndex build(QList<TranscriptRecord> records, int threads = 0);
};

// Display order: savedAt descending; equal instants by id string, greater
// first; otherwise file order.
QList<int> newestFirstOrder(const QList<TranscriptRecord> &records);

} // namespace dictora
