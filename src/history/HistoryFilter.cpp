#include "history/HistoryFilter.h"

#include <QDate>
#include <QSet>

#include <algorithm>

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

bool matchesTime(const TranscriptRecord &r, const HistoryQuery &q)
{
    if (!q.hasTimeFilter())
        return true;
    // Converted on every evaluation so a time-zone change applies at once.
    const QDateTime local = r.savedAt.toLocalTime();
    if (!local.isValid())
        return false;
    const QDate date = local.date();
    return (!q.hour || local.time().hour() == *q.hour) && (!q.day || date.day() == *q.day)
        && (!q.month || date.month() == *q.month) && (!q.year || date.year() == *q.year);
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
    // Sort once on precomputed keys: the id string form is not cheap.
    std::vector<std::pair<qint64, QString>> keys;
    keys.reserve(size_t(kept.size()));
    for (const TranscriptRecord &r : kept)
        keys.emplace_back(r.savedAt.toMSecsSinceEpoch(), uuidString(r.id));
    std::vector<qsizetype> order(size_t(kept.size()));
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = qsizetype(i);
    std::stable_sort(order.begin(), order.end(), [&](qsizetype a, qsizetype b) {
        const auto &ka = keys[size_t(a)];
        const auto &kb = keys[size_t(b)];
        if (ka.first != kb.first)
            return ka.first > kb.first;
        return ka.second > kb.second;
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
        years.insert(r.savedAt.toLocalTime().date().year());
    years.insert(QDate::currentDate().year());
    if (chosenYear)
        years.insert(*chosenYear);
    QList<int> sorted(years.begin(), years.end());
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    return sorted;
}

} // namespace dictora::HistoryFilter
