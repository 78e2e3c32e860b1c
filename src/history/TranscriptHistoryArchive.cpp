#include "history/TranscriptHistoryArchive.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QSaveFile>

#include <cmath>

namespace dictora {

namespace {

QString describe(TranscriptHistoryArchiveError::Kind kind)
{
    switch (kind) {
    case TranscriptHistoryArchiveError::Kind::noHistory:
        return QStringLiteral("There is no History to archive.");
    case TranscriptHistoryArchiveError::Kind::verificationFailed:
        return QStringLiteral("The saved archive could not be verified. History was not cleared.");
    case TranscriptHistoryArchiveError::Kind::clearFailed:
        return QStringLiteral("The archive was verified, but History could not be cleared. Your original History "
                              "remains available.");
    }
    return {};
}

} // namespace

TranscriptHistoryArchiveError::TranscriptHistoryArchiveError(Kind kind) : Error(describe(kind)), m_kind(kind) {}

QByteArray TranscriptHistoryArchive::toJson() const
{
    // QJsonObject keeps its keys sorted and QJsonDocument leaves "/" unescaped;
    // millisecond dates are below 2^53, so they print as exact integers.
    QJsonArray recordArray;
    for (const TranscriptRecord &r : records)
        recordArray.append(QJsonDocument::fromJson(r.toJsonLine()).object());
    QJsonObject o;
    o.insert(QStringLiteral("formatVersion"), formatVersion);
    o.insert(QStringLiteral("productName"), productName);
    o.insert(QStringLiteral("productVersion"), productVersion);
    o.insert(QStringLiteral("exportedAt"), double(exportedAt.toMSecsSinceEpoch()));
    o.insert(QStringLiteral("recordCount"), double(recordCount));
    o.insert(QStringLiteral("records"), recordArray);
    return QJsonDocument(o).toJson(QJsonDocument::Indented);
}

std::optional<TranscriptHistoryArchive> TranscriptHistoryArchive::fromJson(const QByteArray &json)
{
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject o = doc.object();
    const QJsonValue version = o.value(QLatin1String("formatVersion"));
    const QJsonValue name = o.value(QLatin1String("productName"));
    const QJsonValue productVersion = o.value(QLatin1String("productVersion"));
    const QJsonValue exported = o.value(QLatin1String("exportedAt"));
    const QJsonValue count = o.value(QLatin1String("recordCount"));
    const QJsonValue recordArray = o.value(QLatin1String("records"));
    const auto isInteger = [](const QJsonValue &v) {
        return v.isDouble() && std::trunc(v.toDouble()) == v.toDouble() && std::fabs(v.toDouble()) < 9.0e15;
    };
    if (!isInteger(version) || !name.isString() || !productVersion.isString() || !exported.isDouble()
        || !isInteger(count) || !recordArray.isArray())
        return std::nullopt;
    // Beyond any date QDateTime holds, and undefined to convert.
    if (!(std::fabs(exported.toDouble()) <= 8.64e15))
        return std::nullopt;
    TranscriptHistoryArchive archive;
    archive.formatVersion = version.toInt();
    archive.productName = name.toString();
    archive.productVersion = productVersion.toString();
    archive.exportedAt = QDateTime::fromMSecsSinceEpoch(qint64(std::floor(exported.toDouble())), Qt::UTC);
    archive.recordCount = qint64(count.toDouble());
    for (const QJsonValue v : recordArray.toArray()) {
        auto record = v.isObject() ? TranscriptRecord::fromJsonObject(v.toObject()) : std::nullopt;
        if (!record)
            return std::nullopt; // one bad record fails the whole archive
        archive.records.append(std::move(*record));
    }
    return archive;
}

QString TranscriptHistoryArchive::suggestedFilename(const QDateTime &at)
{
    const QLocale posix(QLocale::C);
    return QStringLiteral("Dictora History ")
        + posix.toString(at.toLocalTime(), QStringLiteral("yyyy-MM-dd HHmm")) + QStringLiteral(".json");
}

TranscriptHistoryArchive archiveAndClear(const TranscriptJournal &journal, const QString &destination,
    const QDateTime &exportedAt)
{
    return detail::archiveAndClear(journal, destination, exportedAt, nullptr);
}

TranscriptHistoryArchive detail::archiveAndClear(const TranscriptJournal &journal, const QString &destination,
    const QDateTime &exportedAt, AfterArchiveWritten afterWritten)
{
    const auto access = journal.lock();
    const QList<TranscriptRecord> records = access.readAll();
    if (records.isEmpty())
        throw TranscriptHistoryArchiveError(TranscriptHistoryArchiveError::Kind::noHistory);

    TranscriptHistoryArchive archive;
    archive.exportedAt = QDateTime::fromMSecsSinceEpoch(exportedAt.toMSecsSinceEpoch(), Qt::UTC);
    archive.recordCount = records.size();
    archive.records = records;

    const QByteArray bytes = archive.toJson();
    QSaveFile out(destination);
    if (!out.open(QIODevice::WriteOnly) || out.write(bytes) != bytes.size() || !out.commit())
        throw Error(destination + QStringLiteral(": ") + out.errorString());

    if (afterWritten)
        afterWritten(destination);
    QFile in(destination);
    if (!in.open(QIODevice::ReadOnly))
        throw Error(destination + QStringLiteral(": ") + in.errorString());
    const QByteArray written = in.readAll();
    if (in.error() != QFileDevice::NoError)
        throw Error(destination + QStringLiteral(": ") + in.errorString());
    const auto readBack = TranscriptHistoryArchive::fromJson(written);
    if (!readBack || !(*readBack == archive) || readBack->recordCount != records.size())
        throw TranscriptHistoryArchiveError(TranscriptHistoryArchiveError::Kind::verificationFailed);

    try {
        access.replaceAll({});
    } catch (const Error &) {
        throw TranscriptHistoryArchiveError(TranscriptHistoryArchiveError::Kind::clearFailed);
    }
    return archive;
}

} // namespace dictora
