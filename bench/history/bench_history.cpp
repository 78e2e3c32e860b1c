// History filtering over a large journal: one query per filter kind.
#include "history/HistoryStore.h"
#include "support/SampleJournal.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <cstdio>

using namespace dictora;

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    constexpr int count = 100000;
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("transcripts.jsonl"));
    if (!bench::writeSampleJournal(path, count)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return 1;
    }
    HistoryStore store{TranscriptJournal(path)};
    QSignalSpy reloaded(&store, &HistoryStore::reloaded);
    QElapsedTimer timer;
    timer.start();
    store.reload();
    reloaded.wait(60000);
    std::printf("reload of %d records (read, decode, search keys): %.1f ms\n", int(store.records().size()),
        timer.nsecsElapsed() / 1e6);

    struct Case {
        const char *name;
        void (*set)(HistoryStore &);
    };
    const Case cases[] = {
        {"no filter (sort only)", [](HistoryStore &) {}},
        {"search \"cafe\"", [](HistoryStore &s) { s.setQuery(QStringLiteral("cafe")); }},
        {"search \"item 4242\"", [](HistoryStore &s) { s.setQuery(QStringLiteral("item 4242")); }},
        {"hour 9", [](HistoryStore &s) { s.setFilterHour(9); }},
        {"day 15", [](HistoryStore &s) { s.setFilterDay(15); }},
        {"month 6", [](HistoryStore &s) { s.setFilterMonth(6); }},
        {"year 2024", [](HistoryStore &s) { s.setFilterYear(2024); }},
        {"search + all four filters", [](HistoryStore &s) {
             s.setQuery(QStringLiteral("budget"));
             s.setFilterHour(9);
             s.setFilterDay(15);
             s.setFilterMonth(6);
             s.setFilterYear(2024);
         }},
    };
    for (const Case &c : cases) {
        store.setQuery(QString());
        store.resetTimeFilters();
        c.set(store);
        double best = 1e18;
        qsizetype kept = 0;
        for (int run = 0; run < 5; ++run) {
            timer.restart();
            kept = store.filteredRecords().size();
            best = std::min(best, timer.nsecsElapsed() / 1e6);
        }
        std::printf("query %-28s %7.1f ms (best of 5), %lld kept\n", c.name, best, static_cast<long long>(kept));
    }
    timer.restart();
    const auto years = store.availableFilterYears();
    std::printf("availableFilterYears: %.1f ms (%lld years)\n", timer.nsecsElapsed() / 1e6, static_cast<long long>(years.size()));
    return 0;
}
