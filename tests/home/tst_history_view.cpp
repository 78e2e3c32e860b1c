// The History view on a real store over a real journal file.
#include "HomeTestSupport.h"
#include "home/HistoryListModel.h"
#include "home/HistoryRowDelegate.h"
#include "home/HistoryView.h"
#include "home/Style.h"
#include "home/TranscriptDetailSheet.h"
#include "history/TranscriptHistoryArchive.h"
#include "support/TestSupport.h"

#include <QClipboard>
#include <QComboBox>
#include <QFileDialog>
#include <QJsonDocument>
#include <QJsonObject>
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

QDateTime local(int y, int mo, int d, int h, int mi)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi), Qt::LocalTime);
}

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

QString emptyTitle(const HistoryView &view)
{
    return view.findChild<QLabel *>(QStringLiteral("emptyTitle"))->text();
}

bool showsList(const HistoryView &view)
{
    const auto *stack = view.list()->parentWidget();
    return qobject_cast<const QStackedWidget *>(stack)->currentWidget() == view.list();
}

void choose(QComboBox *combo, std::optional<int> value)
{
    combo->setCurrentIndex(value ? combo->findData(*value) : 0);
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
    void initTestCase()
    {
        Style::apply(*qApp, false);
    }

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

    void searchAndFiltersNarrowTheList_data()
    {
        QTest::addColumn<bool>("withRecords");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<std::optional<int>>("hour");
        QTest::addColumn<std::optional<int>>("day");
        QTest::addColumn<std::optional<int>>("month");
        QTest::addColumn<std::optional<int>>("year");
        QTest::addColumn<QStringList>("expectedStarts");
        QTest::addColumn<QString>("expectedEmptyTitle");
        QTest::addColumn<QString>("expectedEmptyMessage");

        const std::optional<int> none;
        QTest::newRow("no records at all") << false << QString() << none << none << none << none << QStringList()
                                           << "Nothing here yet" << "Your completed dictations will appear here automatically.";
        QTest::newRow("all, newest first") << true << QString() << none << none << none << none
                                           << QStringList{"Draft", "Remind", "Order"} << QString() << QString();
        QTest::newRow("search ignores case and accents") << true << "CAFE" << none << none << none << none
                                                         << QStringList{"Order"} << QString() << QString();
        QTest::newRow("hour 0 is a real filter") << true << QString() << std::optional<int>(0) << none << none << none
                                                 << QStringList{"Order"} << QString() << QString();
        QTest::newRow("month and year combine") << true << QString() << none << none << std::optional<int>(7)
                                                << std::optional<int>(2025) << QStringList{"Draft", "Remind"} << QString()
                                                << QString();
        QTest::newRow("filter plus search") << true << "deadline" << none << std::optional<int>(5) << none << none
                                            << QStringList{"Remind"} << QString() << QString();
        QTest::newRow("filters exclude everything") << true << QString() << std::optional<int>(23) << none << none
                                                    << none << QStringList() << "No matches"
                                                    << "Try different words or a broader time range.";
    }

    void searchAndFiltersNarrowTheList()
    {
        QFETCH(bool, withRecords);
        QFETCH(QString, typed);
        QFETCH(std::optional<int>, hour);
        QFETCH(std::optional<int>, day);
        QFETCH(std::optional<int>, month);
        QFETCH(std::optional<int>, year);
        QFETCH(QStringList, expectedStarts);
        QFETCH(QString, expectedEmptyTitle);
        QFETCH(QString, expectedEmptyMessage);

        build(withRecords ? sampleRecords() : QList<TranscriptRecord>{});
        QTest::keyClicks(m_view->searchField(), typed);
        QCOMPARE(m_store->query(), typed);
        m_view->findChild<QToolButton *>(QStringLiteral("filterButton"))->click();
        choose(m_view->findChild<QComboBox *>(QStringLiteral("hourFilter")), hour);
        choose(m_view->findChild<QComboBox *>(QStringLiteral("dayFilter")), day);
        choose(m_view->findChild<QComboBox *>(QStringLiteral("monthFilter")), month);
        choose(m_view->findChild<QComboBox *>(QStringLiteral("yearFilter")), year);
        QCOMPARE(m_store->filterHour(), hour);
        QCOMPARE(m_store->filterDay(), day);
        QCOMPARE(m_store->filterMonth(), month);
        QCOMPARE(m_store->filterYear(), year);

        const QStringList shown = visibleTranscripts(*m_view);
        QCOMPARE(shown.size(), expectedStarts.size());
        for (int i = 0; i < shown.size(); ++i)
            QVERIFY2(shown[i].startsWith(expectedStarts[i]), qPrintable(shown[i]));
        QCOMPARE(showsList(*m_view), expectedEmptyTitle.isEmpty());
        if (!expectedEmptyTitle.isEmpty()) {
            QCOMPARE(emptyTitle(*m_view), expectedEmptyTitle);
            QCOMPARE(m_view->findChild<QLabel *>(QStringLiteral("emptyMessage"))->text(), expectedEmptyMessage);
        }
    }

    void saysLoadingUntilTheJournalIsRead()
    {
        writeJournal(m_journalPath, {});
        m_store = std::make_unique<HistoryStore>(TranscriptJournal(m_journalPath));
        m_view = std::make_unique<HistoryView>(*m_store);
        QCOMPARE(emptyTitle(*m_view), QStringLiteral("Loading History…"));
        QVERIFY(reloadAndWait(*m_store));
        QCOMPARE(emptyTitle(*m_view), QStringLiteral("Nothing here yet"));
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

    void filterControlsFollowTheStore()
    {
        build(sampleRecords());
        auto *filterButton = m_view->findChild<QToolButton *>(QStringLiteral("filterButton"));
        auto *panel = m_view->findChild<QFrame *>(QStringLiteral("filterPanel"));
        auto *reset = m_view->findChild<QPushButton *>(QStringLiteral("resetFilters"));
        auto *year = m_view->findChild<QComboBox *>(QStringLiteral("yearFilter"));
        auto *clear = m_view->searchField()->findChild<QAction *>(QStringLiteral("clearSearch"));

        QVERIFY(!panel->isVisible());
        QCOMPARE(filterButton->toolTip(), QStringLiteral("Show filters"));
        QVERIFY(filterButton->text().contains(QStringLiteral("Any time")));
        filterButton->click();
        QVERIFY(m_store->isFilterPanelPresented());
        QVERIFY(panel->isVisible());
        QCOMPARE(filterButton->toolTip(), QStringLiteral("Hide filters"));
        QVERIFY(!reset->isEnabled());

        // Years: every record year and the current one, descending, after "Any".
        QList<int> years;
        for (int i = 1; i < year->count(); ++i)
            years << year->itemData(i).toInt();
        QCOMPARE(years, m_store->availableFilterYears());
        QVERIFY(years.contains(2024) && years.contains(2025) && years.contains(QDate::currentDate().year()));

        // The store drives the controls back.
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
        QVERIFY(filterButton->text().contains(QStringLiteral("Any time")));

        clear->trigger();
        QCOMPARE(m_store->query(), QString());
        QVERIFY(!clear->isVisible());
        filterButton->click();
        QVERIFY(!panel->isVisible());
    }

    void rowsCarryTheirElements_data()
    {
        QTest::addColumn<std::optional<qint64>>("ears");
        QTest::addColumn<std::optional<QString>>("engine");
        QTest::addColumn<TranscriptOutcome>("outcome");
        QTest::addColumn<QString>("application");
        QTest::addColumn<QString>("expectedEars");
        QTest::addColumn<QStringList>("expectedBadges");
        QTest::addColumn<QString>("expectedApplication");

        const std::optional<QString> engine(QStringLiteral("exact-local-large-v3-turbo-q5_0"));
        QTest::newRow("pasted with timing and engine") << std::optional<qint64>(812) << engine << TranscriptOutcome::pasted
                                                       << "Editor" << "ears 812ms" << QStringList{"Exact local"} << "Editor";
        QTest::newRow("older record without extras") << std::optional<qint64>() << std::optional<QString>()
                                                     << TranscriptOutcome::pasted << "Terminal" << QString()
                                                     << QStringList() << "Terminal";
        QTest::newRow("recovered") << std::optional<qint64>(0) << engine << TranscriptOutcome::recovered << "Editor"
                                   << "ears 0ms" << QStringList{"Exact local", "Recovered"} << "Editor";
        QTest::newRow("no target application") << std::optional<qint64>() << std::optional<QString>()
                                               << TranscriptOutcome::failed << QString() << QString() << QStringList()
                                               << "No application";
    }

    void rowsCarryTheirElements()
    {
        QFETCH(std::optional<qint64>, ears);
        QFETCH(std::optional<QString>, engine);
        QFETCH(TranscriptOutcome, outcome);
        QFETCH(QString, application);
        QFETCH(QString, expectedEars);
        QFETCH(QStringList, expectedBadges);
        QFETCH(QString, expectedApplication);

        const QString text = QStringLiteral("one two three four five six seven eight nine ten eleven twelve thirteen "
                                            "fourteen fifteen sixteen seventeen");
        TranscriptRecord r = homeRecord(QDateTime::currentDateTime(), text, application);
        r.earsDurationMilliseconds = ears;
        r.transcriptionEngine = engine;
        r.outcome = outcome;
        r.recordingDurationMilliseconds = 65000;
        build({r});

        const QModelIndex row = m_view->model()->index(0);
        QCOMPARE(row.data(HistoryListModel::EarsRole).toString(), expectedEars);
        QCOMPARE(row.data(HistoryListModel::BadgesRole).toStringList(), expectedBadges);
        QCOMPARE(row.data(HistoryListModel::ApplicationRole).toString(), expectedApplication);
        QCOMPARE(row.data(HistoryListModel::DurationRole).toString(), QStringLiteral("1m 05s"));
        QCOMPARE(row.data(HistoryListModel::PreviewRole).toString(),
            QStringLiteral("one two three four five six seven eight nine … twelve thirteen fourteen fifteen sixteen "
                           "seventeen"));
        QCOMPARE(row.data(HistoryListModel::SavedAtTextRole).toString(),
            QLocale().toString(r.savedAt.toLocalTime(), QLocale::ShortFormat));
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
        QVERIFY(sheet);
        QVERIFY(QTest::qWaitForWindowExposed(sheet));
        const TranscriptRecord &record = m_view->model()->record(1);
        QCOMPARE(sheet->findChild<QPlainTextEdit *>(QStringLiteral("transcript"))->toPlainText(), record.transcript);
        QVERIFY(sheet->findChild<QPlainTextEdit *>(QStringLiteral("transcript"))->isReadOnly());
        QCOMPARE(sheet->findChild<QLabel *>(QStringLiteral("savedAt"))->text(),
            QLocale().toString(record.savedAt.toLocalTime(), QLocale::LongFormat));
        QCOMPARE(sheet->findChild<QLabel *>(QStringLiteral("details"))->text(),
            QStringLiteral("No application  ·  4s  ·  ears 812ms")); // row 1 is the record without one

        QGuiApplication::clipboard()->clear();
        QCOMPARE(sheet->copyButton()->text(), QStringLiteral("Copy Transcript"));
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
        QVERIFY(sheet);
        QCOMPARE(sheet->record().id, expected.id);
        QVERIFY(QTest::qWaitForWindowExposed(sheet));
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
        QTest::addColumn<QString>("noticeTitle");
        QTest::addColumn<QString>("noticeMessage");

        QTest::newRow("archived") << 3 << "History Archived"
                                  << "Saved and verified 3 transcriptions in my archive.json. Your in-app History is now clear.";
        QTest::newRow("nothing to archive") << 0 << "Archive Failed" << "There is no History to archive.";
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
        QCOMPARE(archive->text(), QStringLiteral("Archive && Clear"));
        QCOMPARE(archive->toolTip(), QStringLiteral("Archive all History and clear it"));
        QCOMPARE(archive->accessibleDescription(),
            QStringLiteral("Save every transcription to a verified archive, then clear History"));
        archive->click();

        auto *confirm = visibleDialog<QMessageBox>(QStringLiteral("archiveConfirmation"));
        QVERIFY(confirm);
        QCOMPARE(confirm->text(), QStringLiteral("Archive and clear all History?"));
        // All records count, not the filtered ones.
        QCOMPARE(confirm->informativeText(),
            QStringLiteral("All %1 transcriptions will be saved—not only the current search or filter results. Dictora "
                           "clears History only after the archive is written and verified.")
                .arg(recordCount));
        QStringList buttons;
        QAbstractButton *choose = nullptr;
        for (QAbstractButton *b : confirm->buttons()) {
            buttons << b->text();
            if (b->text() == QLatin1String("Choose Save Location"))
                choose = b;
        }
        buttons.sort();
        QCOMPARE(buttons, (QStringList{"Cancel", "Choose Save Location"}));
        choose->click();

        QFileDialog *panel = nullptr;
        QTRY_VERIFY((panel = visibleDialog<QFileDialog>(QStringLiteral("archiveSavePanel"))));
        QCOMPARE(panel->windowTitle(), QStringLiteral("Archive Dictora History"));
        QCOMPARE(panel->acceptMode(), QFileDialog::AcceptSave);
        QCOMPARE(panel->labelText(QFileDialog::Accept), QStringLiteral("Archive"));
        QCOMPARE(panel->nameFilters(), QStringList{QStringLiteral("JSON (*.json)")});
        QCOMPARE(panel->defaultSuffix(), QStringLiteral("json"));
        QVERIFY(!panel->testOption(QFileDialog::ReadOnly));
        QVERIFY(panel->findChild<QLabel *>(QStringLiteral("savePanelMessage")));
        const QString proposed = QFileInfo(panel->selectedFiles().value(0)).fileName();
        QVERIFY2(proposed.startsWith(QStringLiteral("Dictora History ")) && proposed.endsWith(QStringLiteral(".json")),
            qPrintable(proposed));

        const QString destination = m_dir->filePath(QStringLiteral("my archive.json"));
        // What a person does: go to the folder and type a name.
        panel->setDirectory(m_dir->path());
        auto *nameField = panel->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"));
        QVERIFY(nameField);
        nameField->setText(QStringLiteral("my archive.json"));
        QSignalSpy finished(m_store.get(), &HistoryStore::archiveFinished);
        QMetaObject::invokeMethod(panel, "accept");
        QVERIFY(finished.wait(10000));

        auto *notice = visibleDialog<QMessageBox>(QStringLiteral("historyNotice"));
        QVERIFY(notice);
        QCOMPARE(notice->text(), noticeTitle);
        QCOMPARE(notice->informativeText(), noticeMessage);
        QVERIFY(archive->isEnabled());

        const bool archived = recordCount > 0;
        QCOMPARE(QFile::exists(destination), archived);
        if (archived) {
            QFile file(destination);
            QVERIFY(file.open(QIODevice::ReadOnly));
            const auto read = TranscriptHistoryArchive::fromJson(file.readAll());
            QVERIFY(read);
            QCOMPARE(read->recordCount, qint64(recordCount));
            QVERIFY(TranscriptJournal(m_journalPath).readAll().isEmpty());
            QCOMPARE(m_view->searchField()->text(), QString());
            QVERIFY(!m_store->hasActiveTimeFilter());
            QVERIFY(!m_store->isFilterPanelPresented());
            QCOMPARE(emptyTitle(*m_view), QStringLiteral("Nothing here yet"));
        }
        notice->button(QMessageBox::Ok)->click();
        QVERIFY(!m_store->notice());
    }

    void cancellingTheConfirmationChangesNothing()
    {
        build(sampleRecords());
        m_view->findChild<QPushButton *>(QStringLiteral("archiveButton"))->click();
        auto *confirm = visibleDialog<QMessageBox>(QStringLiteral("archiveConfirmation"));
        QVERIFY(confirm);
        for (QAbstractButton *b : confirm->buttons())
            if (b->text() == QLatin1String("Cancel"))
                b->click();
        QCoreApplication::processEvents();
        QVERIFY(!visibleDialog<QFileDialog>(QStringLiteral("archiveSavePanel")));
        QVERIFY(!m_store->isArchiving());
        QCOMPARE(TranscriptJournal(m_journalPath).readAll().size(), 3);
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
        QVERIFY(notice);
        QCOMPARE(notice->text(), QStringLiteral("History Error"));
        QVERIFY(notice->informativeText().startsWith(QStringLiteral("History could not be opened: ")));
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
