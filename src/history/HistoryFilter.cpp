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

QList<TranscriptRecord> apply(const QList<TranscriptRecord> &records, const QList<QString> &searchKeys,
    const HistoryQuery &query)
{
    const QString term = searchKey(query.search.trimmed());
    QList<TranscriptRecord> kept;
    for (qsizetype i = 0; i < records.size(); ++i) {
        const TranscriptRecord &r = records.at(i);
        if (!matchesTime(r, query))
            continue;
        if (!term.isEmpty() && !searchKeys.at(i).contains(term))
            continue;
        kept.append(r);
    }
    std::vector<qint64> savedAt;
    savedAt.reserve(size_t(kept.size()));
    for (const TranscriptRecord &r : kept)
        savedAt.push_back(r.savedAt.toMSecsSinceEpoch());
    std::vector<qsizetype> order(size_t(kept.size()));
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = qsizetype(i);
    std::stable_sort(order.begin(), order.end(), [&](qsizetype a, qsizetype b) {
        if (savedAt[size_t(a)] != savedAt[size_t(b)])
            return savedAt[size_t(a)] > savedAt[size_t(b)];
        // Ties are rare; only then is the id's string form worth building.
        return uuidString(kept.at(a).id) > uuidString(kept.at(b).id);
    });
    QList<TranscriptRecord> sorted;
    sorted.reserve(kept.size());
    for (qsizetype i : order)
        sorted.append(kept.at(i));
    return sorted;
}

QList<TranscriptRecord> apply(const QList<TranscriptRecord> &records, const HistoryQuery &query)
{
    QList<QString> keys;
    if (!query.search.trimmed().isEmpty()) {
        keys.reserve(records.size());
        for (const TranscriptRecord &r : records)
            keys.append(searchKey(r.transcript));
    } else {
        keys.resize(records.size());
    }
    return apply(records, keys, query);
}

QList<int> availableYears(const QList<TranscriptRecord> &records, std::optional<int> chosenYear)
{
    QSet<int> years;
    for (const TranscriptRecord &r : records)
        if (const auto tm = localComponents(r.savedAt))
            years.insert(tm->tm_year + 1900);
    years.insert(QDate::currentDate().year());
    if (chosenYear)
        years.insert(*chosenYear);
    QList<int> sorted(years.begin(), years.end());
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    return sorted;
}

} // namespace dictora::HistoryFilter
