// The main window over a journal of 100,000 and of 1,000,000 records (or the
// counts given as arguments): time from construction to the first paint of a
// filled list, the longest stall of the GUI thread while the rest loads, and
// time per keystroke of search (filtering plus the repaint it causes). The
// journals are generated into the temporary folder and deleted after.
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/HistoryStore.h"
#include "history/JournalLineDecoder.h"
#include "support/SampleJournal.h"
#include "home/HistoryListModel.h"
#include "home/HistoryView.h"
#include "home/HomeWindow.h"
#include "home/Style.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <QLineEdit>
#include <QListView>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cstdio>

using namespace dictora;

namespace {

// Notes when the list's viewport paints with rows in it.
class PaintWatch : public QObject {
public:
    explicit PaintWatch(const QAbstractItemModel &model, const QElapsedTimer &clock) : m_model(model), m_clock(clock) {}
    bool painted = false;
    double firstPaintMs = -1;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint) {
            if (firstPaintMs < 0)
                firstPaintMs = m_clock.nsecsElapsed() / 1e6;
            if (m_model.rowCount() > 0)
                painted = true;
        }
        return false;
    }

private:
    const QAbstractItemModel &m_model;
    const QElapsedTimer &m_clock;
};

} // namespace

namespace {

int run(int count)
{
    std::printf("== %d records\n", count);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("transcripts.jsonl"));
    QElapsedTimer generation;
    generation.start();
    if (!bench::writeSampleJournal(path, count)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return 1;
    }
    std::printf("  journal generated: %.0f MB in %.1f s\n", QFileInfo(path).size() / 1e6, generation.elapsed() / 1e3);

    QTemporaryDir settingsDir;
    QSettings settings(settingsDir.filePath(QStringLiteral("defaults.ini")), QSettings::IniFormat);
    DictoraState state;
    ProductPreferences preferences(settings);
    HistoryStore store{TranscriptJournal(path)};

    // The journal read alone, for the split between the store and the window.
    QElapsedTimer readTimer;
    readTimer.start();
    const qsizetype readCount = TranscriptJournal(path).readAll().size();
    const double readMs = readTimer.nsecsElapsed() / 1e6;
    // The general decoder the journal used before the canonical one, on one
    // thread, over the same lines (at most 100,000 of them).
    double referenceMs = 0, canonicalMs = 0;
    int referenceLines = 0, canonicalLines = 0;
    {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        const QByteArray bytes = file.read(qint64(700) * 100000);
        const QList<QByteArray> lines = bytes.split('\n');
        QElapsedTimer t;
        t.start();
        for (const QByteArray &line : lines) {
            if (!line.isEmpty() && canonicalLines < 100000)
                canonicalLines += JournalLineDecoder::decodeCanonical(line).has_value();
        }
        canonicalMs = t.nsecsElapsed() / 1e6;
        t.restart();
        for (const QByteArray &line : lines) {
            if (!line.isEmpty() && referenceLines < 100000)
                referenceLines += TranscriptRecord::fromJson(line).has_value();
        }
        referenceMs = t.nsecsElapsed() / 1e6;
    }

    QElapsedTimer timer;
    timer.start();
    HomeWindow window(state, preferences, store);

    HistoryView *history = window.historyView();
    PaintWatch watch(*history->model(), timer);
    history->list()->viewport()->installEventFilter(&watch);
    PaintWatch windowWatch(*history->model(), timer);
    window.installEventFilter(&windowWatch);
    double reloadedMs = -1;
    double appliedMs = -1;
    int firstRows = 0;
    QObject::connect(&store, &HistoryStore::reloaded, &store, [&] { reloadedMs = timer.nsecsElapsed() / 1e6; });
    QObject::connect(history->model(), &HistoryListModel::refreshed, &store, [&] {
        if (appliedMs < 0 && history->model()->rowCount() > 0) {
            appliedMs = timer.nsecsElapsed() / 1e6;
            firstRows = history->model()->rowCount();
        }
    });
    // The GUI thread's responsiveness: the longest gap between ticks of a 5 ms timer.
    double lastTick = -1, worstGap = 0;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, &store, [&] {
        const double now = timer.nsecsElapsed() / 1e6;
        if (lastTick >= 0)
            worstGap = std::max(worstGap, now - lastTick);
        lastTick = now;
    });
    const double builtMs = timer.nsecsElapsed() / 1e6;
    window.present();
    ticker.start();
    while (!watch.painted && timer.elapsed() < 120000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double openMs = timer.nsecsElapsed() / 1e6;
    if (!watch.painted) {
        std::fprintf(stderr, "the list never painted\n");
        return 1;
    }
    while (reloadedMs < 0 && timer.elapsed() < 300000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    ticker.stop();
    std::printf("  open main window to first filled paint: %.1f ms (%d newest rows shown first)\n", openMs, firstRows);
    std::printf("  whole History loaded: %.1f ms (%d rows); longest GUI stall meanwhile: %.1f ms\n", reloadedMs,
        history->model()->rowCount(), worstGap);
    std::printf("  window built %.1f ms, window's first paint %.1f ms, list model first filled %.1f ms\n", builtMs,
        windowWatch.firstPaintMs, appliedMs);
    std::printf("  the journal read and decode alone (readAll, measured before the window): %.1f ms for %d records\n",
        readMs, int(readCount));
    std::printf("  one thread, lines in memory: canonical decoder %.1f ms for %d records, general decoder (the "
                "reader before) %.1f ms for %d\n",
        canonicalMs, canonicalLines, referenceMs, referenceLines);

    {
        // What the window does with a fresh list: filter, reset the model, repaint.
        QList<double> applies;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer t;
            t.start();
            history->model()->refresh();
            history->list()->viewport()->repaint();
            applies << t.nsecsElapsed() / 1e6;
        }
        std::sort(applies.begin(), applies.end());
        std::printf("  applying %d records to the list (filter, model reset, repaint): median %.1f ms\n", count,
            applies[applies.size() / 2]);
    }

    // Per keystroke: the edit, the filter over every record, the model reset
    // and the repaint of the visible rows.
    const auto keystroke = [&](QLineEdit *field, const QString &text) {
        QElapsedTimer t;
        t.start();
        if (text == QLatin1String("\b"))
            QTest::keyClick(field, Qt::Key_Backspace);
        else
            QTest::keyClicks(field, text);
        history->list()->viewport()->repaint();
        return t.nsecsElapsed() / 1e6;
    };
    QLineEdit *field = history->searchField();
    field->setFocus();
    QList<double> times;
    const QString typed = QStringLiteral("budget and the team");
    for (const QChar c : typed)
        times << keystroke(field, QString(c));
    for (int i = 0; i < 6; ++i)
        times << keystroke(field, QStringLiteral("\b"));
    std::sort(times.begin(), times.end());
    double sum = 0;
    for (double t : times)
        sum += t;
    std::printf("  search keystroke: median %.1f ms, mean %.1f ms, worst %.1f ms (%d keystrokes, %d rows left)\n",
        times[times.size() / 2], sum / times.size(), times.last(), int(times.size()), history->model()->rowCount());

    // Scrolling: one page down and its repaint, from the top.
    QListView *list = history->list();
    list->scrollToTop();
    store.setQuery(QString());
    QList<double> scrolls;
    for (int i = 0; i < 50; ++i) {
        QElapsedTimer t;
        t.start();
        QTest::keyClick(list, Qt::Key_PageDown);
        list->viewport()->repaint();
        scrolls << t.nsecsElapsed() / 1e6;
    }
    std::sort(scrolls.begin(), scrolls.end());
    std::printf("  page down and repaint: median %.2f ms, worst %.2f ms\n", scrolls[scrolls.size() / 2], scrolls.last());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    Style::apply(app);
    QList<int> counts;
    for (int i = 1; i < argc; ++i)
        counts << std::max(1, atoi(argv[i]));
    if (counts.isEmpty())
        counts = {100000, 1000000};
    int status = 0;
    for (const int count : counts)
        status |= run(count);
    return status;
}
