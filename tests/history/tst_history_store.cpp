#include "HistoryTestRecords.h"
#include "history/HistoryStore.h"
#include "support/TestSupport.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <time.h>

using namespace dictora;
using dictora::test::recordSavedAt;
using dictora::test::texts;
using dictora::test::utc;

class HistoryStoreTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString journalPath() const { return m_dir.filePath(QStringLiteral("transcripts.jsonl")); }

    // Records spread over an evening in New York, where the test runs.
    QList<TranscriptRecord> m_records{
        recordSavedAt(utc("2026-03-01T04:30:00Z"), QString::fromUtf8("Café order for the team")), // Feb 28 23:30 local
        recordSavedAt(utc("2026-03-01T05:10:00Z"), QStringLiteral("CAFE closes early")),          // Mar 1 00:10
        recordSavedAt(utc("2025-07-05T16:00:00Z"), QStringLiteral("Quarterly figures")),           // Jul 5 12:00
        recordSavedAt(utc("2024-01-05T12:00:00Z"), QString::fromUtf8("naïve résumé review")),    // Jan 5 07:00
    };

    std::unique_ptr<HistoryStore> loadedStore()
    {
        QFile::remove(journalPath());
        TranscriptJournal journal(journalPath());
        for (const TranscriptRecord &r : m_records)
            journal.append(r);
        auto store = std::make_unique<HistoryStore>(journal);
        QSignalSpy reloaded(store.get(), &HistoryStore::reloaded);
        store->reload();
        if (!reloaded.wait(5000))
            qFatal("reload did not finish");
        return store;
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TZ", "America/New_York");
        ::tzset();
    }

    void filters_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QList<int>>("time"); // hour, day, month, year; -1: any
        QTest::addColumn<QStringList>("expected");
        const QList<int> any{-1, -1, -1, -1};
        const QString cafe1 = QString::fromUtf8("Café order for the team"), cafe2 = QStringLiteral("CAFE closes early"),
                      figures = QStringLiteral("Quarterly figures"), resume = QString::fromUtf8("naïve résumé review");
        QTest::newRow("everything, newest first") << "" << any << QStringList{cafe2, cafe1, figures, resume};
        QTest::newRow("spaces only is no search") << "   " << any << QStringList{cafe2, cafe1, figures, resume};
        QTest::newRow("accents and case ignored") << " cafe " << any << QStringList{cafe2, cafe1};
        QTest::newRow("accented query finds plain") << QString::fromUtf8("CAFÉ") << any << QStringList{cafe2, cafe1};
        QTest::newRow("inner accents") << "resume" << any << QStringList{resume};
        QTest::newRow("local hour, not UTC") << "" << QList{23, -1, -1, -1} << QStringList{cafe1};
        QTest::newRow("UTC hour does not match") << "" << QList{4, -1, -1, -1} << QStringList{};
        QTest::newRow("day alone spans months and years") << "" << QList{-1, 5, -1, -1} << QStringList{figures, resume};
        QTest::newRow("local day of a UTC-next-day record") << "" << QList{-1, 28, 2, 2026} << QStringList{cafe1};
        QTest::newRow("hour 0 is a filter") << "" << QList{0, -1, -1, -1} << QStringList{cafe2};
        QTest::newRow("search and filter combine") << "cafe" << QList{-1, 1, 3, -1} << QStringList{cafe2};
    }
    void filters()
    {
        QFETCH(QString, query);
        QFETCH(QList<int>, time);
        QFETCH(QStringList, expected);
        const auto opt = [&time](int i) { return time[i] < 0 ? std::nullopt : std::optional<int>(time[i]); };
        const auto store = loadedStore();
        store->setQuery(query);
        store->setFilterHour(opt(0));
        store->setFilterDay(opt(1));
        store->setFilterMonth(opt(2));
        store->setFilterYear(opt(3));
        QCOMPARE(texts(store->filteredRecords()), expected);
        QCOMPARE(store->hasActiveTimeFilter(), time != QList<int>(4, -1));
    }

    void availableYearsKeepChosenAndCurrent()
    {
        const auto store = loadedStore();
        store->setFilterYear(2019);
        const int current = QDate::currentDate().year();
        QList<int> expected{current, 2026, 2025, 2024, 2019};
        std::sort(expected.begin(), expected.end(), std::greater<>());
        expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
        QCOMPARE(store->availableFilterYears(), expected);
        store->resetTimeFilters();
        QVERIFY(!store->availableFilterYears().contains(2019));
    }

    // A second archive asked for while one runs is ignored: one archive, one
    // notice. (What a finished archive says and clears is tst_history_view's.)
    void secondArchiveRequestIsIgnored()
    {
        const auto store = loadedStore();
        QSignalSpy finished(store.get(), &HistoryStore::archiveFinished);
        QSignalSpy notices(store.get(), &HistoryStore::noticeChanged);
        const QString destination = m_dir.filePath(QStringLiteral("Dictora History.json"));
        store->archiveAndClear(destination);
        QVERIFY(store->isArchiving());
        store->archiveAndClear(destination);
        QVERIFY(finished.wait(10000));
        QTest::qWait(100);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(notices.count(), 1);
        QVERIFY(!store->isArchiving());
    }

    void failedArchiveKeepsViewAndRecords()
    {
        const auto store = loadedStore();
        store->setQuery(QStringLiteral("cafe"));
        QSignalSpy finished(store.get(), &HistoryStore::archiveFinished);
        // The destination's folder is a file: the write fails, the journal stays.
        const QString blocker = m_dir.filePath(QStringLiteral("blocker"));
        QVERIFY(test::writeFile(blocker, {}));
        store->archiveAndClear(blocker + QStringLiteral("/archive.json"));
        QVERIFY(finished.wait(10000));
        QCOMPARE(finished.first().first().toBool(), false);
        QCOMPARE(store->notice()->title, QStringLiteral("Archive Failed"));
        QCOMPARE(store->records().size(), 4);
        QCOMPARE(store->query(), QStringLiteral("cafe"));
        QCOMPARE(TranscriptJournal(journalPath()).readAll().size(), 4);
    }
};

QTEST_GUILESS_MAIN(HistoryStoreTest)
#include "tst_history_store.moc"
