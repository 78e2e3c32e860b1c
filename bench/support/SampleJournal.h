#pragma once

#include "history/TranscriptRecord.h"

#include <QFile>
#include <QStringList>

namespace dictora::bench {

// Writes a journal of `count` plausible dictations, about 17 minutes apart
// from 2023 on, with words the History benchmarks search for. False when the
// file cannot be written.
inline bool writeSampleJournal(const QString &path, int count)
{
    const QStringList words{QStringLiteral("meeting"), QString::fromUtf8("café"), QStringLiteral("budget"),
        QStringLiteral("review"), QStringLiteral("deadline"), QString::fromUtf8("résumé"), QStringLiteral("team")};
    const qint64 start = QDateTime(QDate(2023, 1, 1), QTime(0, 0), Qt::UTC).toMSecsSinceEpoch();
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    // Written in pieces, so a million records never sit in memory at once.
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        TranscriptRecord r;
        r.id = QUuid::createUuid();
        r.savedAt = QDateTime::fromMSecsSinceEpoch(start + qint64(i) * 997'000, Qt::UTC);
        r.recordingStartedAt = r.savedAt.addSecs(-8);
        r.recordingEndedAt = r.savedAt.addSecs(-1);
        r.recordingDurationMilliseconds = 7000;
        r.outcome = TranscriptOutcome::pasted;
        r.targetApplication = TargetApplication{QStringLiteral("Text Editor"), QStringLiteral("gedit"), 1234};
        r.earsDurationMilliseconds = 640;
        r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
        r.transcript = QStringLiteral("Notes about the %1 and the %2 before we send the figures, item %3.")
                           .arg(words[i % words.size()], words[(i / 7) % words.size()])
                           .arg(i);
        bytes += r.toJsonLine() + '\n';
        if (bytes.size() > (4 << 20) || i + 1 == count) {
            if (f.write(bytes) != bytes.size())
                return false;
            bytes.clear();
        }
    }
    return true;
}

} // namespace dictora::bench
