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

    HistoryStore *loadedStore(QObject *parent)
    {
        QFile::remove(journalPath());
        TranscriptJournal journal(journalPath());
        for (const TranscriptRecord &r : m_records)
            journal.append(r);
        auto *store = new HistoryStore(journal, parent);
        QSignalSpy reloaded(store, &HistoryStore::reloaded);
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
        QTest::addColumn<int>("hour");
        QTest::addColumn<int>("day");
        QTest::addColumn<int>("month");
        QTest::addColumn<int>("year");
        QTest::addColumn<QStringList>("expected");
        const int none = -1;
        const QString cafe1 = QString::fromUtf8("Café order for the team"), cafe2 = QStringLiteral("CAFE closes early"),
                      figures = QStringLiteral("Quarterly figures"), resume = QString::fromUtf8("naïve résumé review");
        QTest::newRow("everything, newest first") << "" << none << none << none << none << QStringList{cafe2, cafe1, figures, resume};
        QTest::newRow("spaces only is no search") << "   " << none << none << none << none << QStringList{cafe2, cafe1, figures, resume};
        QTest::newRow("accents and case ignored") << " cafe " << none << none << none << none << QStringList{cafe2, cafe1};
        QTest::newRow("accented query finds plain") << QString::fromUtf8("CAFÉ") << none << none << none << none << QStringList{cafe2, cafe1};
        QTest::newRow("inner accents") << "resume" << none << none << none << none << QStringList{resume};
        QTest::newRow("local hour, not UTC") << "" << 23 << none << none << none << QStringList{cafe1};
        QTest::newRow("UTC hour does not match") << "" << 4 << none << none << none << QStringList{};
        QTest::newRow("day alone spans months and years") << "" << none << 5 << none << none << QStringList{figures, resume};
        QTest::newRow("local day of a UTC-next-day record") << "" << none << 28 << 2 << 2026 << QStringList{cafe1};
        QTest::newRow("hour 0 is a filter") << "" << 0 << none << none << none << QStringList{cafe2};
        QTest::newRow("search and filter combine") << "cafe" << none << 1 << 3 << none << QStringList{cafe2};
    }
    void filters()
    {
        QFETCH(QString, query);
        QFETCH(int, hour);
        QFETCH(int, day);
        QFETCH(int, month);
        QFETCH(int, year);
        QFETCH(QStringList, expected);
        const auto opt = [](int v) { return v < 0 ? std::nullopt : std::optional<int>(v); };
        HistoryStore *store = loadedStore(this);
        store->setQuery(query);
        store->setFilterHour(opt(hour));
        store->setFilterDay(opt(day));
        store->setFilterMonth(opt(month));
        store->setFilterYear(opt(year));
        QCOMPARE(texts(store->filteredRecords()), expected);
        QCOMPARE(store->hasActiveTimeFilter(), hour >= 0 || day >= 0 || month >= 0 || year >= 0);
        delete store;
    }

    void availableYearsKeepChosenAndCurrent()
    {
        HistoryStore *store = loadedStore(this);
        store->setFilterYear(2019);
        const int current = QDate::currentDate().year();
        QList<int> expected{current, 2026, 2025, 2024, 2019};
        std::sort(expected.begin(), expected.end(), std::greater<>());
        expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
        QCOMPARE(store->availableFilterYears(), expected);
        store->resetTimeFilters();
        QVERIFY(!store->availableFilterYears().contains(2019));
        delete store;
    }

    // A second archive asked for while one runs is ignored: one archive, one
    // notice. (What a finished archive clears is tst_history_view's.)
    void secondArchiveRequestIsIgnored()
    {
        HistoryStore *store = loadedStore(this);
        QSignalSpy finished(store, &HistoryStore::archiveFinished);
        QSignalSpy notices(store, &HistoryStore::noticeChanged);
        const QString destination = m_dir.filePath(QStringLiteral("Dictora History.json"));
        store->archiveAndClear(destination);
        QVERIFY(store->isArchiving());
        store->archiveAndClear(destination);
        QVERIFY(finished.wait(10000));
        QTest::qWait(100);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(notices.count(), 1);
        QCOMPARE(store->notice()->message, QStringLiteral("Saved and verified 4 transcriptions in Dictora History.json. Your in-app History is now clear."));
        QVERIFY(store->records().isEmpty());
        QVERIFY(!store->isArchiving());
        delete store;
    }

    void failedArchiveKeepsViewAndRecords()
    {
        HistoryStore *store = loadedStore(this);
        store->setQuery(QStringLiteral("cafe"));
        QSignalSpy finished(store, &HistoryStore::archiveFinished);
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
        delete store;
    }
};

QTEST_GUILESS_MAIN(HistoryStoreTest)
#include "tst_history_store.moc"
