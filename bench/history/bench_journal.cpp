// Journal throughput: durable appends (fsync each) and a full read-back.
#include "history/TranscriptJournal.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

using namespace dictora;

namespace {

TranscriptRecord sample(int n)
{
    TranscriptRecord r;
    r.id = QUuid::createUuid();
    r.recordingStartedAt = QDateTime::fromMSecsSinceEpoch(1700000000000 + n * 60000LL, Qt::UTC);
    r.recordingEndedAt = r.recordingStartedAt.addMSecs(6200);
    r.savedAt = r.recordingEndedAt.addMSecs(700);
    r.targetApplication = TargetApplication{QStringLiteral("Text Editor"), QStringLiteral("org.gnome.TextEditor"), 4242};
    r.transcript = QStringLiteral("Please send the quarterly figures to the team before Friday, and remind everyone "
                                  "that the review moves to ten o'clock. Item %1.").arg(n);
    r.recordingDurationMilliseconds = 6200;
    r.finalizationDurationMilliseconds = 650;
    r.pasteDispatchDurationMilliseconds = 14;
    r.totalDurationMilliseconds = 6900;
    r.outcome = TranscriptOutcome::pasted;
    r.earsDurationMilliseconds = 610;
    r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
    return r;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir(QCoreApplication::applicationDirPath() + QStringLiteral("/journal-bench-XXXXXX"));
    const int appends = 10000, reads = 100000;

    TranscriptJournal journal(dir.filePath(QStringLiteral("append/transcripts.jsonl")));
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < appends; ++i)
        journal.append(sample(i));
    const double appendMs = double(timer.nsecsElapsed()) / 1e6;
    std::printf("append (fsync each): %d records in %.1f ms = %.0f records/s (%.3f ms per record)\n", appends,
        appendMs, appends / (appendMs / 1000.0), appendMs / appends);

    // Build the large journal in one write; reading it back is the figure.
    const QString bigPath = dir.filePath(QStringLiteral("read/transcripts.jsonl"));
    TranscriptJournal big(bigPath);
    big.prepare();
    {
        QByteArray bytes;
        for (int i = 0; i < reads; ++i)
            bytes += sample(i).toJsonLine() + '\n';
        QFile f(bigPath);
        f.open(QIODevice::WriteOnly);
        f.write(bytes);
        std::printf("journal of %d records: %.1f MB\n", reads, bytes.size() / 1e6);
    }
    double best = 1e18;
    for (int run = 0; run < 3; ++run) {
        timer.restart();
        const auto records = big.readAll();
        best = std::min(best, double(timer.nsecsElapsed()) / 1e6);
        if (records.size() != reads) {
            std::fprintf(stderr, "read %lld records, expected %d\n", static_cast<long long>(records.size()), reads);
            return 1;
        }
    }
    std::printf("readAll: %d records in %.1f ms (best of 3) = %.0f records/s\n", reads, best, reads / (best / 1000.0));
    return 0;
}
