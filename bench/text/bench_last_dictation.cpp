// How long `dictora paste-last` spends finding the newest record before the
// paste begins: the journal's tail is read, never the whole file.
#include "support/SampleJournal.h"
#include "text/paste/LastDictation.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

using namespace dictora;

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir(QCoreApplication::applicationDirPath() + QStringLiteral("/last-dictation-bench-XXXXXX"));
    for (const int count : {1000, 100000, 1000000}) {
        const QString path = dir.filePath(QStringLiteral("%1/transcripts.jsonl").arg(count));
        TranscriptJournal journal(path);
        journal.prepare();
        if (!bench::writeSampleJournal(path, count)) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
        double best = 1e18;
        for (int run = 0; run < 5; ++run) {
            QElapsedTimer timer;
            timer.start();
            const std::optional<TranscriptRecord> newest = LastDictation::newest(journal);
            best = std::min(best, double(timer.nsecsElapsed()) / 1e6);
            if (!newest || !newest->transcript.endsWith(QStringLiteral("item %1.").arg(count - 1))) {
                std::fprintf(stderr, "the newest record of %d was not found\n", count);
                return 1;
            }
        }
        std::printf("newest record of %7d (%6.1f MB journal): %.3f ms (best of 5)\n", count,
            QFileInfo(path).size() / 1e6, best);
    }
    return 0;
}
