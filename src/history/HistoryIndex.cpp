#include "history/HistoryIndex.h"

#include "history/HistoryFilter.h"

#include <QSet>
#include <QtConcurrent/QtConcurrentMap>

#include <algorithm>
#include <ctime>
#include <numeric>
#include <thread>

namespace dictora {

namespace {

// The canonical string's order: upper-case hex digits compare like the bytes
// they stand for, and the hyphens sit at the same places in every id.
bool idStringGreater(const QUuid &a, const QUuid &b)
{
    if (a.data1 != b.data1)
        return a.data1 > b.data1;
    if (a.data2 != b.data2)
        return a.data2 > b.data2;
    if (a.data3 != b.data3)
        return a.data3 > b.data3;
    return std::lexicographical_compare(b.data4, b.data4 + 8, a.data4, a.data4 + 8);
}

} // namespace

QList<int> newestFirstOrder(const QList<TranscriptRecord> &records)
{
    const qsizetype count = records.size();
    std::vector<qint64> savedAt(static_cast<size_t>(count));
    bool ascending = true; // the usual journal: written in order, no two in one millisecond
    for (qsizetype i = 0; i < count; ++i) {
        savedAt[size_t(i)] = records.at(i).savedAt.toMSecsSinceEpoch();
        if (i > 0 && savedAt[size_t(i)] <= savedAt[size_t(i - 1)])
            ascending = false;
    }
    QList<int> order(count);
    for (qsizetype i = 0; i < count; ++i)
        order[i] = int(ascending ? count - 1 - i : i);
    if (!ascending) {
        std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
            if (savedAt[size_t(a)] != savedAt[size_t(b)])
                return savedAt[size_t(a)] > savedAt[size_t(b)];
            return idStringGreater(records.at(a).id, records.at(b).id);
        });
    }
    return order;
}

HistoryIndex HistoryIndex::build(QList<TranscriptRecord> records, int threads)
{
    HistoryIndex index;
    index.records = std::move(records);
    const qsizetype count = index.records.size();
    index.newestFirst = newestFirstOrder(index.records);

    QList<QString> keys(count);
    if (threads <= 0)
        threads = int(std::max(1u, std::thread::hardware_concurrency()));
    const qsizetype workers = count < 4096 ? 1 : threads;
    // Normalising every transcript costs as much as decoding it: one slice per core.
    std::vector<qsizetype> slices(static_cast<size_t>(workers));
    std::iota(slices.begin(), slices.end(), qsizetype(0));
    const auto work = [&index, &keys, count, workers](qsizetype w) {
        for (qsizetype i = count * w / workers, to = count * (w + 1) / workers; i < to; ++i)
            keys[i] = HistoryFilter::searchKey(index.records.at(i).transcript);
    };
    if (workers == 1)
        work(0);
    else
        QtConcurrent::blockingMap(slices, work);
    qsizetype length = 0;
    for (const QString &key : keys)
        length += key.size() + 1;
    index.searchText.reserve(length);
    index.keyStarts.reserve(count + 1);
    for (QString &key : keys) {
        index.keyStarts.append(index.searchText.size());
        index.searchText.append(key);
        index.searchText.append(kKeyEnd);
        key = QString();
    }
    index.keyStarts.append(index.searchText.size());

    index.years = HistoryFilter::recordYears(index.records);
    return index;
}

} // namespace dictora
