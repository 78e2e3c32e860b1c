#include "HistoryTestRecords.h"
#include "history/HistoryStore.h"
#include "history/PendingJournal.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace dictora;
using dictora::test::FileSizeLimit;
using dictora::test::readFile;
using dictora::test::recordSavedAt;
using dictora::test::texts;
using dictora::test::utc;

// Dictations the journal refuses wait in memory and go in, in order, once it
// accepts writes again; the journal is refused here by a file-size limit,
// which fails a write exactly where a full disk would.
class PendingJournalTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_case = 0;
    QStringList m_log;

    // A journal of its own per case: the queue is per file, for the process.
    TranscriptJournal freshJournal(const QByteArray &seed)
    {
        const QString path = m_dir.filePath(QStringLiteral("case%1/transcripts.jsonl").arg(++m_case));
        TranscriptJournal journal(path);
        journal.prepare();
        test::writeFile(path, seed);
        m_log.clear();
        PendingJournal::of(journal).setLog([this](const QString &line) { m_log << line; });
        return journal;
    }
    static TranscriptRecord record(const char *text, int minute)
    {
        return recordSavedAt(utc("2026-05-01T10:00:00Z").addSecs(60 * minute), QString::fromLatin1(text));
    }

private Q_SLOTS:
    // Each row: how many dictations are refused, whether the next one or a
    // History reload brings the journal back, and what the file then holds.
    void refusedRecordsGoInInOrder_data()
    {
        QTest::addColumn<int>("refused");
        QTest::addColumn<bool>("byReload");
        QTest::newRow("one refused, next dictation") << 1 << false;
        QTest::newRow("three refused, next dictation") << 3 << false;
        QTest::newRow("two refused, History reload") << 2 << true;
    }
    void refusedRecordsGoInInOrder()
    {
        QFETCH(int, refused);
        QFETCH(bool, byReload);
        const TranscriptRecord old = record("already saved", 0);
        TranscriptJournal journal = freshJournal(old.toJsonLine() + '\n');
        PendingJournal &pending = PendingJournal::of(journal);
        const QByteArray before = readFile(journal.filePath());

        QStringList expected{QStringLiteral("already saved")};
        {
            FileSizeLimit full(before.size() + 10);
            for (int i = 1; i <= refused; ++i) {
                const TranscriptRecord r = record(QByteArray("refused ") + QByteArray::number(i), i);
                try {
                    pending.append(r);
                    QFAIL("an append past the limit succeeded");
                } catch (const JournalError &e) {
                    QVERIFY2(e.description().contains(journal.filePath()), qPrintable(e.description()));
                }
                expected << r.transcript;
            }
            QCOMPARE(pending.count(), qsizetype(refused));
            QVERIFY_THROWS_EXCEPTION(JournalError, pending.flush());
        }
        QCOMPARE(readFile(journal.filePath()), before);
        QCOMPARE(m_log.filter(QStringLiteral("journal record kept in memory")).size(), refused);

        if (byReload) {
            HistoryStore store(journal);
            QSignalSpy reloaded(&store, &HistoryStore::reloaded);
            store.reload();
            QVERIFY(reloaded.wait(5000));
            QCOMPARE(texts(store.records()), expected);
        } else {
            const TranscriptRecord next = record("after the space came back", 30);
            pending.append(next);
            expected << next.transcript;
        }
        QCOMPARE(pending.count(), 0);
        QCOMPARE(texts(journal.readAll()), expected);
        QVERIFY2(m_log.contains(QStringLiteral("pending journal records appended count=%1").arg(refused)),
            qPrintable(m_log.join(u'\n')));
    }

    // A real full file system: a small tmpfs filled to the last block.
    void fullTmpfsKeepsTheRecordUntilThereIsRoom()
    {
        if (::geteuid() != 0)
            QSKIP("mounting a small tmpfs needs root");
        QTemporaryDir mountPoint;
        if (QProcess::execute(QStringLiteral("mount"), {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                                                           QStringLiteral("size=64k"), QStringLiteral("tmpfs"), mountPoint.path()})
            != 0)
            QSKIP("tmpfs cannot be mounted here");
        auto unmount = qScopeGuard([&] { QProcess::execute(QStringLiteral("umount"), {mountPoint.path()}); });
        const TranscriptJournal journal(mountPoint.filePath(QStringLiteral("Dictora/transcripts.jsonl")));
        PendingJournal &pending = PendingJournal::of(journal);
        const TranscriptRecord first = record("before the disk filled", 1);
        // Longer than the free end of the journal's last page, so it needs a new one.
        TranscriptRecord second = record("while it was full", 2);
        second.transcript += QString(9000, u'w');
        pending.append(first);
        const QByteArray before = readFile(journal.filePath());
        QFile filler(mountPoint.filePath(QStringLiteral("filler")));
        QVERIFY(filler.open(QIODevice::WriteOnly));
        while (filler.write(QByteArray(4096, 'x')) > 0 && filler.flush()) {
        }
        filler.close();

        try {
            pending.append(second);
            QFAIL("an append to a full file system succeeded");
        } catch (const JournalError &e) {
            QVERIFY2(e.description().contains(QStringLiteral("No space left on device")), qPrintable(e.description()));
        }
        QCOMPARE(readFile(journal.filePath()), before);
        QCOMPARE(pending.count(), 1);

        QVERIFY(filler.remove());
        QCOMPARE(pending.flush(), 1);
        QCOMPARE(texts(journal.readAll()), (QStringList{first.transcript, second.transcript}));
    }

    // The controller's failure path appends a "failed" record with the id of
    // the dictation whose own record was just refused: one record per id.
    void failureRecordNeverDuplicatesAKeptOne()
    {
        TranscriptJournal journal = freshJournal({});
        PendingJournal &pending = PendingJournal::of(journal);
        TranscriptRecord dictation = record("the words that matter", 1);
        TranscriptRecord failure = dictation;
        failure.transcript.clear();
        failure.outcome = TranscriptOutcome::failed;
        failure.error = QStringLiteral("File too large");
        {
            FileSizeLimit full(0);
            QVERIFY_THROWS_EXCEPTION(JournalError, pending.append(dictation));
            QVERIFY_THROWS_EXCEPTION(JournalError, pending.append(failure));
            QCOMPARE(pending.count(), 1);
        }
        pending.append(failure); // space is back: the kept dictation goes in, once
        const QList<TranscriptRecord> saved = journal.readAll();
        QCOMPARE(saved.size(), 1);
        QCOMPARE(saved.first(), dictation);
    }
};

QTEST_GUILESS_MAIN(PendingJournalTest)
#include "tst_pending_journal.moc"
