// The History view on a real store over a real journal file.
#include "HomeTestSupport.h"
#include "home/HistoryListModel.h"
#include "home/HistoryRowDelegate.h"
#include "home/HistoryView.h"
#include "home/Style.h"
#include "home/TranscriptDetailSheet.h"
#include "support/TestSupport.h"

#include <QClipboard>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStackedWidget>
#include <QToolButton>

using namespace dictora;
using namespace dictora::test;

namespace {

QDateTime local(int y, int mo, int d, int h, int mi) { return QDateTime(QDate(y, mo, d), QTime(h, mi), Qt::LocalTime); }

// Three records across two years; "Café" has an accent the search ignores.
QList<TranscriptRecord> sampleRecords()
{
    return {homeRecord(local(2024, 3, 5, 0, 15), QString::fromUtf8("Order a flat white at the Café on Monday")),
        homeRecord(local(2025, 7, 14, 9, 30), QStringLiteral("Draft the quarterly budget review for the team")),
        homeRecord(local(2025, 7, 5, 16, 45), QStringLiteral("Remind Sam about the deadline"), QString())};
}

QStringList visibleTranscripts(const HistoryView &view)
{
    QStringList out;
    for (int row = 0; row < view.model()->rowCount(); ++row)
        out << view.model()->record(row).transcript;
    return out;
}

QString emptyTitle(const HistoryView &view) { return view.findChild<QLabel *>(QStringLiteral("emptyTitle"))->text(); }

bool showsList(const HistoryView &view)
{
    return qobject_cast<const QStackedWidget *>(view.list()->parentWidget())->currentWidget() == view.list();
}

void choose(QComboBox *combo, std::optional<int> value) { combo->setCurrentIndex(value ? combo->findData(*value) : 0); }

void clickButton(QMessageBox *box, const char *text)
{
    for (QAbstractButton *b : box->buttons())
        if (b->text() == QLatin1String(text))
            return b->click();
    QFAIL(text);
}

} // namespace

class HistoryViewTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_journalPath;
    std::unique_ptr<HistoryStore> m_store;
    std::unique_ptr<HistoryView> m_view;

    void build(const QList<TranscriptRecord> &records)
    {
        writeJournal(m_journalPath, records);
        m_store = std::make_unique<HistoryStore>(TranscriptJournal(m_journalPath));
        m_view = std::make_unique<HistoryView>(*m_store);
        m_view->resize(900, 600);
        m_view->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_view.get()));
        QVERIFY(reloadAndWait(*m_store));
    }

private Q_SLOTS:
    void initTestCase() { Style::apply(*qApp, false); }

    void init()
    {
        m_home = std::make_unique<IsolatedHome>();
        m_dir = std::make_unique<QTemporaryDir>();
        m_journalPath = m_dir->filePath(QStringLiteral("transcripts.jsonl"));
    }

    void cleanup()
    {
        m_view.reset();
        m_store.reset();
        QThreadPool::globalInstance()->waitForDone();
    }

    // The field and the four menus drive the store (whose own test covers the
    // matching) and the list follows; the store drives the controls back.
    void searchAndFiltersFollowTheStore()
    {
        build(sampleRecords());
        auto *filterButton = m_view->findChild<QToolButton *>(QStringLiteral("filterButton"));
        auto *panel = m_view->findChild<QFrame *>(QStringLiteral("filterPanel"));
        auto *reset = m_view->findChild<QPushButton *>(QStringLiteral("resetFilters"));
        auto *year = m_view->findChild<QComboBox *>(QStringLiteral("yearFilter"));
        auto *clear = m_view->searchField()->findChild<QAction *>(QStringLiteral("clearSearch"));
        QVERIFY(!panel->isVisible());
        filterButton->click();
        QVERIFY(m_store->isFilterPanelPresented() && panel->isVisible());
        QVERIFY(!reset->isEnabled());
        // Years: every record year and the current one, descending, after "Any".
        QList<int> years;
        for (int i = 1; i < year->count(); ++i)
            years << year->itemData(i).toInt();
        QCOMPARE(years, m_store->availableFilterYears());

        const std::optional<int> any;
        const auto filter = [&](std::optional<int> hour, std::optional<int> day, std::optional<int> month,
                                std::optional<int> year) {
            choose(m_view->findChild<QComboBox *>(QStringLiteral("hourFilter")), hour);
            choose(m_view->findChild<QComboBox *>(QStringLiteral("dayFilter")), day);
            choose(m_view->findChild<QComboBox *>(QStringLiteral("monthFilter")), month);
            choose(m_view->findChild<QComboBox *>(QStringLiteral("yearFilter")), year);
            QStringList firstWords;
            for (const QString &t : visibleTranscripts(*m_view))
                firstWords << t.section(u' ', 0, 0);
            return m_store->filterHour() == hour && m_store->filterDay() == day && m_store->filterMonth() == month
                    && m_store->filterYear() == year
                ? firstWords
                : QStringList{QStringLiteral("(the store did not get the menus' values)")};
        };
        QCOMPARE(filter(0, any, any, any), QStringList{"Order"}); // hour 0 is a filter, not "any"
        QCOMPARE(filter(any, any, 7, 2025), (QStringList{"Draft", "Remind"}));
        QTest::keyClicks(m_view->searchField(), QStringLiteral("deadline"));
        QCOMPARE(m_store->query(), QStringLiteral("deadline"));
        QCOMPARE(filter(any, 5, any, any), QStringList{"Remind"});
        QVERIFY(showsList(*m_view));
        QCOMPARE(filter(23, any, any, any), QStringList());
        QVERIFY(!showsList(*m_view));
        QCOMPARE(emptyTitle(*m_view), QStringLiteral("No matches"));

        m_store->setFilterDay(5);
        QCOMPARE(m_view->findChild<QComboBox *>(QStringLiteral("dayFilter"))->currentText(), QStringLiteral("5"));
        QVERIFY(filterButton->text().contains(QStringLiteral("Active")));
        QVERIFY(reset->isEnabled());
        m_store->setQuery(QStringLiteral("budget"));
        QCOMPARE(m_view->searchField()->text(), QStringLiteral("budget"));
        QVERIFY(clear->isVisible());

        reset->click();
        QVERIFY(!m_store->hasActiveTimeFilter());
        QCOMPARE(m_store->query(), QStringLiteral("budget")); // reset leaves the search alone
        QVERIFY(m_store->isFilterPanelPresented());
        QVERIFY(!reset->isEnabled());
        QVERIFY(!filterButton->text().contains(QStringLiteral("Active")));
        clear->trigger();
        QCOMPARE(m_store->query(), QString());
        QVERIFY(!clear->isVisible());
        filterButton->click();
        QVERIFY(!panel->isVisible());
    }

    void longHistoryShowsNewestRowsWhileTheRestLoads()
    {
        // Enough lines that the newest page is shown before the rest is read.
        QList<TranscriptRecord> records;
        for (int i = 0; i < 3000; ++i)
            records << homeRecord(local(2025, 1, 1, 0, 0).addSecs(i * 60), QStringLiteral("note %1").arg(i));
        writeJournal(m_journalPath, records);
        m_store = std::make_unique<HistoryStore>(TranscriptJournal(m_journalPath));
        m_view = std::make_unique<HistoryView>(*m_store);
        QCOMPARE(emptyTitle(*m_view), QStringLiteral("Loading History…"));
        m_view->show();
        auto *loadingOlder = m_view->findChild<QLabel *>(QStringLiteral("loadingOlder"));
        auto *archive = m_view->findChild<QPushButton *>(QStringLiteral("archiveButton"));
        QStringList firstRows;
        bool labelShown = false, archiveEnabled = true;
        connect(m_store.get(), &HistoryStore::loadingOlderChanged, this, [&](bool loading) {
            if (!loading)
                return;
            firstRows = visibleTranscripts(*m_view).mid(0, 2);
            labelShown = loadingOlder->isVisibleTo(m_view.get());
            archiveEnabled = archive->isEnabled(); // the count would be wrong until all is read
        });
        QVERIFY(reloadAndWait(*m_store));
        QCOMPARE(firstRows, (QStringList{QStringLiteral("note 2999"), QStringLiteral("note 2998")}));
        QVERIFY(labelShown);
        QVERIFY(!archiveEnabled);
        QCOMPARE(m_view->model()->rowCount(), 3000);
        QVERIFY(!loadingOlder->isVisibleTo(m_view.get()));
        QVERIFY(archive->isEnabled());
    }

    // Each row's timing, badges and application come from its own record;
    // older records lack some of them.
    void rowsCarryTheirElements()
    {
        const QDateTime now = QDateTime::currentDateTime();
        TranscriptRecord older = homeRecord(now.addSecs(-1), QStringLiteral("b"), QStringLiteral("Terminal"));
        TranscriptRecord recovered = homeRecord(now.addSecs(-2), QStringLiteral("c"));
        TranscriptRecord failed = homeRecord(now.addSecs(-3), QStringLiteral("d"), QString());
        for (TranscriptRecord *r : {&older, &failed}) {
            r->earsDurationMilliseconds.reset();
            r->transcriptionEngine.reset();
        }
        recovered.earsDurationMilliseconds = 0;
        recovered.outcome = TranscriptOutcome::recovered;
        failed.outcome = TranscriptOutcome::failed;
        build({homeRecord(now, QStringLiteral("a")), older, recovered, failed});

        const auto column = [&](int role) {
            QStringList out;
            for (int i = 0; i < m_view->model()->rowCount(); ++i)
                out << m_view->model()->index(i).data(role).toStringList().join(u'+');
            return out;
        };
        QCOMPARE(column(HistoryListModel::EarsRole), (QStringList{"ears 812ms", "", "ears 0ms", ""}));
        QCOMPARE(column(HistoryListModel::BadgesRole), (QStringList{"Exact local", "", "Exact local+Recovered", ""}));
        QCOMPARE(column(HistoryListModel::ApplicationRole), (QStringList{"Editor", "Terminal", "Editor", "No application"}));
    }

    void copyButtonPutsThePlainTranscriptOnTheClipboard()
    {
        QList<TranscriptRecord> records = sampleRecords();
        const QString longText = QStringLiteral("alpha beta gamma delta epsilon zeta eta theta iota kappa lambda mu nu "
                                                "xi omicron pi rho sigma tau");
        records.append(homeRecord(QDateTime::currentDateTime(), longText));
        build(records);
        QGuiApplication::clipboard()->clear();

        const QRect rowRect = m_view->list()->visualRect(m_view->model()->index(0));
        const QPoint button = HistoryRowDelegate::copyButtonRect(rowRect, false).center();
        QTest::mouseClick(m_view->list()->viewport(), Qt::LeftButton, {}, button);

        QCOMPARE(QGuiApplication::clipboard()->text(), longText); // the whole text, not the preview
        QVERIFY(!QGuiApplication::clipboard()->mimeData()->hasHtml());
        QVERIFY(m_view->model()->index(0).data(HistoryListModel::CopiedRole).toBool());
        QVERIFY(!m_view->model()->index(1).data(HistoryListModel::CopiedRole).toBool());
        QVERIFY(!m_view->presentedSheet()); // the copy button does not open the row
        QTRY_VERIFY_WITH_TIMEOUT(!m_view->model()->index(0).data(HistoryListModel::CopiedRole).toBool(), 10000);
    }

    void rowOpensItsDetailSheet()
    {
        build(sampleRecords());
        const QModelIndex second = m_view->model()->index(1);
        const QRect rowRect = m_view->list()->visualRect(second);
        QTest::mouseClick(m_view->list()->viewport(), Qt::LeftButton, {}, rowRect.topLeft() + QPoint(40, 30));

        TranscriptDetailSheet *sheet = m_view->presentedSheet();
        QVERIFY(sheet && QTest::qWaitForWindowExposed(sheet));
        const TranscriptRecord &record = m_view->model()->record(1);
        const auto *transcript = sheet->findChild<QPlainTextEdit *>(QStringLiteral("transcript"));
        QCOMPARE(transcript->toPlainText(), record.transcript);
        QVERIFY(transcript->isReadOnly());
        QCOMPARE(sheet->findChild<QLabel *>(QStringLiteral("details"))->text(),
            QStringLiteral("No application  ·  3s  ·  ears 812ms")); // row 1 is the record without one

        QGuiApplication::clipboard()->clear();
        sheet->copyButton()->click();
        QCOMPARE(QGuiApplication::clipboard()->text(), record.transcript);
        QCOMPARE(sheet->copyButton()->text(), QStringLiteral("Copied"));

        sheet->doneButton()->click();
        QTRY_VERIFY(!m_view->presentedSheet());
    }

    void keyboardSearchOpenAndClose()
    {
        build(sampleRecords());
        m_view->list()->setFocus();
        m_view->list()->setCurrentIndex(m_view->model()->index(0));
        // Typing in the list goes to the search field.
        QTest::keyClicks(m_view->list(), QStringLiteral("re"));
        QCOMPARE(m_view->searchField()->text(), QStringLiteral("re"));
        QCOMPARE(m_store->query(), QStringLiteral("re"));
        QVERIFY(m_view->searchField()->hasFocus() || !QApplication::focusWidget());

        QTest::keyClick(m_view->searchField(), Qt::Key_Down);
        QCOMPARE(m_view->list()->currentIndex().row(), 0);
        QTest::keyClick(m_view->list(), Qt::Key_Down);
        const TranscriptRecord expected = m_view->model()->record(m_view->list()->currentIndex().row());
        QTest::keyClick(m_view->list(), Qt::Key_Return);
        TranscriptDetailSheet *sheet = m_view->presentedSheet();
        QVERIFY(sheet && QTest::qWaitForWindowExposed(sheet));
        QCOMPARE(sheet->record().id, expected.id);
        QTest::keyClick(sheet, Qt::Key_Escape);
        QTRY_VERIFY(!m_view->presentedSheet());

        // Enter in the search field opens the current row.
        QTest::keyClick(m_view->searchField(), Qt::Key_Enter);
        QVERIFY(m_view->presentedSheet());
        m_view->presentedSheet()->close();
        QTRY_VERIFY(!m_view->presentedSheet());
        // Escape in the search field clears it.
        QTest::keyClick(m_view->searchField(), Qt::Key_Escape);
        QCOMPARE(m_store->query(), QString());
    }

    void archiveFromButtonToNotice_data()
    {
        QTest::addColumn<int>("recordCount");
        QTest::addColumn<QString>("noticeTitle"); // empty: the confirmation is cancelled
        QTest::addColumn<QString>("noticeMessage");

        QTest::newRow("archived") << 3 << "History Archived"
                                  << "Saved and verified 3 transcriptions in my archive.json. Your in-app History is now clear.";
        QTest::newRow("nothing to archive") << 0 << "Archive Failed" << "There is no History to archive.";
        QTest::newRow("cancelled") << 3 << QString() << QString();
    }

    void archiveFromButtonToNotice()
    {
        QFETCH(int, recordCount);
        QFETCH(QString, noticeTitle);
        QFETCH(QString, noticeMessage);

        build(sampleRecords().mid(0, recordCount));
        // Search and filters that a successful archive clears.
        QTest::keyClicks(m_view->searchField(), QStringLiteral("the"));
        m_store->setFilterYear(2025);
        m_store->setFilterPanelPresented(true);

        auto *archive = m_view->findChild<QPushButton *>(QStringLiteral("archiveButton"));
        archive->click();

        auto *confirm = visibleDialog<QMessageBox>(QStringLiteral("archiveConfirmation"));
        QVERIFY(confirm);
        // All records count, not the filtered ones.
        QVERIFY2(confirm->informativeText().startsWith(QStringLiteral("All %1 transcriptions").arg(recordCount)),
            qPrintable(confirm->informativeText()));
        if (noticeTitle.isEmpty()) {
            clickButton(confirm, "Cancel");
            QCoreApplication::processEvents();
            QVERIFY(!visibleDialog<QFileDialog>(QStringLiteral("archiveSavePanel")));
            QVERIFY(!m_store->isArchiving());
            QCOMPARE(TranscriptJournal(m_journalPath).readAll().size(), recordCount);
            return;
        }
        clickButton(confirm, "Choose Save Location");

        QFileDialog *panel = nullptr;
        QTRY_VERIFY((panel = visibleDialog<QFileDialog>(QStringLiteral("archiveSavePanel"))));
        QCOMPARE(panel->acceptMode(), QFileDialog::AcceptSave);
        const QString proposed = QFileInfo(panel->selectedFiles().value(0)).fileName();
        QVERIFY2(proposed.startsWith(QStringLiteral("Dictora History ")) && proposed.endsWith(QStringLiteral(".json")),
            qPrintable(proposed));

        // What a person does: go to the folder and type a name.
        panel->setDirectory(m_dir->path());
        panel->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"))->setText(QStringLiteral("my archive.json"));
        QSignalSpy finished(m_store.get(), &HistoryStore::archiveFinished);
        QMetaObject::invokeMethod(panel, "accept");
        QVERIFY(finished.wait(10000));

        auto *notice = visibleDialog<QMessageBox>(QStringLiteral("historyNotice"));
        QVERIFY(notice);
        QCOMPARE(QStringList({notice->text(), notice->informativeText()}), QStringList({noticeTitle, noticeMessage}));
        QVERIFY(archive->isEnabled());

        const bool archived = recordCount > 0;
        QCOMPARE(QFile::exists(m_dir->filePath(QStringLiteral("my archive.json"))), archived);
        if (archived) {
            QVERIFY(TranscriptJournal(m_journalPath).readAll().isEmpty());
            QCOMPARE(m_view->searchField()->text(), QString());
            QVERIFY(!m_store->hasActiveTimeFilter());
            QVERIFY(!m_store->isFilterPanelPresented());
            QCOMPARE(emptyTitle(*m_view), QStringLiteral("Nothing here yet"));
        }
        notice->button(QMessageBox::Ok)->click();
        QVERIFY(!m_store->notice());
    }

    void unreadableJournalShowsAnAlertAndKeepsTheList()
    {
        build(sampleRecords());
        QCOMPARE(m_view->model()->rowCount(), 3);
        // Replace the journal with a folder: reading it fails.
        QVERIFY(QFile::remove(m_journalPath));
        QVERIFY(QDir().mkpath(m_journalPath));
        QVERIFY(reloadAndWait(*m_store));
        auto *notice = visibleDialog<QMessageBox>(QStringLiteral("historyNotice"));
        QVERIFY(notice && notice->text() == QLatin1String("History Error"));
        QCOMPARE(m_view->model()->rowCount(), 3);

        // A second notice with the same text still shows once dismissed.
        notice->button(QMessageBox::Ok)->click();
        QVERIFY(!m_store->notice());
        QVERIFY(reloadAndWait(*m_store));
        QTRY_VERIFY(visibleDialog<QMessageBox>(QStringLiteral("historyNotice")));
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    HistoryViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_history_view.moc"
