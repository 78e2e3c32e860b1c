#include "history/HistoryFilter.h"

#include <QDate>
#include <QSet>

#include <algorithm>
#include <ctime>

namespace dictora::HistoryFilter {

QString searchKey(const QString &text)
{
    const QString decomposed = text.normalized(QString::NormalizationForm_KD);
    QString key;
    key.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        const auto category = c.category();
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_SpacingCombining
            || category == QChar::Mark_Enclosing)
            continue;
        key.append(c);
    }
    return key.toCaseFolded();
}

namespace {

// The C library's conversion: it follows TZ and the system zone on every
// call (so a change applies at once) and is far cheaper than QDateTime's.
std::optional<struct tm> localComponents(const QDateTime &instant)
{
    if (!instant.isValid())
        return std::nullopt;
    const qint64 ms = instant.toMSecsSinceEpoch();
    const time_t seconds = time_t(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    struct tm tm{};
    if (!localtime_r(&seconds, &tm))
        return std::nullopt;
    return tm;
}

bool matchesTime(const TranscriptRecord &r, const HistoryQuery &q)
{
    if (!q.hasTimeFilter())
        return true;
    const auto tm = localComponents(r.savedAt);
    if (!tm)
        return false;
    return (!q.hour || tm->tm_hour == *q.hour) && (!q.day || tm->tm_mday == *q.day)
        && (!q.month || tm->tm_mon + 1 == *q.month) && (!q.year || tm->tm_year + 1900 == *q.year);
}

} // namespace

QList<int> select(const HistoryIndex &index, const HistoryQuery &query)
{
    const QString term = searchKey(query.search.trimmed());
    const bool byTime = query.hasTimeFilter();
    QList<int> kept;
    if (term.isEmpty() && !byTime)
        return index.newestFirst;
    const QStringView all(index.searchText);
    const auto key = [&](qsizetype i) {
        return all.sliced(index.keyStarts.at(i), index.keyStarts.at(i + 1) - index.keyStarts.at(i) - 1);
    };
    std::vector<bool> found;
    const bool scan = !term.isEmpty() && !term.contains(HistoryIndex::kKeyEnd);
    if (scan) {
        // One pass over all keys; after a hit, on to the next record's key.
        found.resize(size_t(index.records.size()));
        for (qsizetype at = all.indexOf(term); at >= 0;) {
            const auto next = std::upper_bound(index.keyStarts.begin(), index.keyStarts.end(), at);
            found[size_t(next - index.keyStarts.begin() - 1)] = true;
            if (next == index.keyStarts.end())
                break;
            at = all.indexOf(term, *next);
        }
    }
    for (const int i : index.newestFirst) {
        if (byTime && !matchesTime(index.records.at(i), query))
            continue;
        if (!term.isEmpty() && !(scan ? bool(found[size_t(i)]) : key(i).contains(term)))
            continue;
        kept.append(i);
    }
    return kept;
}

QList<TranscriptRecord> apply(const QList<TranscriptRecord> &records, const HistoryQuery &query)
{
    const HistoryIndex index = HistoryIndex::build(records, 1);
    QList<TranscriptRecord> kept;
    for (const int i : select(index, query))
        kept.append(records.at(i));
    return kept;
}

QList<int> recordYears(const QList<TranscriptRecord> &records)
{
    QSet<int> years;
    for (const TranscriptRecord &r : records)
        if (const auto tm = localComponents(r.savedAt))
            years.insert(tm->tm_year + 1900);
    QList<int> sorted(years.begin(), years.end());
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    return sorted;
}

QList<int> availableYears(const QList<int> &recordYears, std::optional<int> chosenYear)
{
    QSet<int> years(recordYears.begin(), recordYears.end());
    years.insert(QDate::currentDate().year());
    if (chosenYear)
        years.insert(*chosenYear);
    QList<int> sorted(years.begin(), years.end());
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    return sorted;
}

} // namespace dictora::HistoryFilter
