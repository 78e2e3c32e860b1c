#pragma once

#include "history/TranscriptRecord.h"

namespace dictora::test {

inline TranscriptRecord recordSavedAt(const QDateTime &savedAt, const QString &text, const QString &id = QString())
{
    TranscriptRecord r;
    r.id = id.isEmpty() ? QUuid::createUuid() : QUuid(id);
    r.savedAt = savedAt.toUTC();
    r.recordingStartedAt = r.savedAt.addMSecs(-3000);
    r.recordingEndedAt = r.savedAt.addMSecs(-500);
    r.transcript = text;
    r.outcome = TranscriptOutcome::pasted;
    r.recordingDurationMilliseconds = 2500;
    r.totalDurationMilliseconds = 3000;
    return r;
}

inline QStringList texts(const QList<TranscriptRecord> &records)
{
    QStringList out;
    for (const auto &r : records)
        out << r.transcript;
    return out;
}

// What a journal must yield: every line decoded on its own by the general
// decoder (a line ending in CR is not ours).
inline QList<TranscriptRecord> referenceRead(const QByteArray &bytes)
{
    QList<TranscriptRecord> records;
    for (const QByteArray &line : bytes.split('\n')) {
        if (line.isEmpty() || line.endsWith('\r'))
            continue;
        if (auto r = TranscriptRecord::fromJson(line))
            records.append(*r);
    }
    return records;
}

inline QDateTime utc(const char *iso)
{
    return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs).toUTC();
}

} // namespace dictora::test
