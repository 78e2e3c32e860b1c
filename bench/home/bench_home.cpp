// The main window over a 100,000-record journal: time from construction to
// the first paint of a filled list, and time per keystroke of search
// (filtering plus the repaint it causes).
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/HistoryStore.h"
#include "support/SampleJournal.h"
#include "home/HistoryListModel.h"
#include "home/HistoryView.h"
#include "home/HomeWindow.h"
#include "home/Style.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
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

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    Style::apply(app);
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 100000;

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("transcripts.jsonl"));
    if (!bench::writeSampleJournal(path, count)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return 1;
    }

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
    QObject::connect(&store, &HistoryStore::reloaded, &store, [&] { reloadedMs = timer.nsecsElapsed() / 1e6; });
    QObject::connect(history->model(), &HistoryListModel::refreshed, &store, [&] {
        if (appliedMs < 0 && history->model()->rowCount() > 0)
            appliedMs = timer.nsecsElapsed() / 1e6;
    });
    const double builtMs = timer.nsecsElapsed() / 1e6;
    window.present();
    while (!watch.painted && timer.elapsed() < 120000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double openMs = timer.nsecsElapsed() / 1e6;
    if (!watch.painted) {
        std::fprintf(stderr, "the list never painted\n");
        return 1;
    }
    std::printf("open main window with %d records to first filled paint: %.1f ms (%d rows)\n", count, openMs,
        history->model()->rowCount());
    std::printf("  window built %.1f ms, window's first paint (\"Loading History…\") %.1f ms, list model filled %.1f ms, "
                "store reloaded %.1f ms\n",
        builtMs, windowWatch.firstPaintMs, appliedMs, reloadedMs);
    std::printf("  the journal read and decode alone (measured separately, before the window): %.1f ms for %d records\n",
        readMs, int(readCount));

    {
        // What the window does with a fresh list: filter and sort, reset the model, repaint.
        QList<double> applies;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer t;
            t.start();
            history->model()->refresh();
            history->list()->viewport()->repaint();
            applies << t.nsecsElapsed() / 1e6;
        }
        std::sort(applies.begin(), applies.end());
        std::printf("  applying %d records to the list (filter, sort, model reset, repaint): median %.1f ms\n", count,
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
    // The first keystroke after a reload also builds the store's search keys.
    const double first = times.takeFirst();
    std::sort(times.begin(), times.end());
    double sum = 0;
    for (double t : times)
        sum += t;
    std::printf("search keystroke over %d records: first %.1f ms (builds the search keys), then mean %.1f ms, median "
                "%.1f ms, worst %.1f ms (%d keystrokes, %d rows left)\n",
        count, first, sum / times.size(), times[times.size() / 2], times.last(), int(times.size()),
        history->model()->rowCount());

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
    std::printf("page down and repaint: median %.2f ms, worst %.2f ms\n", scrolls[scrolls.size() / 2], scrolls.last());
    return 0;
}
