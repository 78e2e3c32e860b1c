#include "HistoryTestRecords.h"
#include "history/TranscriptJournal.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>
#include <unistd.h>

using namespace dictora;
using dictora::test::readFile;
using dictora::test::writeFile;

namespace {

TranscriptRecord makeRecord(int n, const QString &text = QString())
{
    TranscriptRecord r = test::recordSavedAt(QDateTime::fromMSecsSinceEpoch(1700000000000 + n * 1000LL, Qt::UTC),
        text.isNull() ? QStringLiteral("record %1").arg(n) : text);
    r.targetApplication = TargetApplication{QStringLiteral("xterm"), QStringLiteral("XTerm"), 100 + n};
    return r;
}

} // namespace

class TranscriptJournalTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString journalPath() const { return m_dir.filePath(QStringLiteral("Dictora/transcripts.jsonl")); }

private Q_SLOTS:
    void init() { QDir(m_dir.filePath(QStringLiteral("Dictora"))).removeRecursively(); }

    // Reading never creates the file; prepare and clearing leave it empty and
    // private to the user.
    void fileIsCreatedPrivateAndClearedEmpty()
    {
        TranscriptJournal journal(journalPath());
        QVERIFY(journal.readAll().isEmpty());
        QVERIFY(!QFile::exists(journalPath()));
        journal.prepare();
        QCOMPARE(QFileInfo(journalPath()).size(), 0);
        QCOMPARE(int(QFile::permissions(journalPath()) & 0x0077), 0);
        QVERIFY(QFile::permissions(journalPath()).testFlags(QFile::ReadOwner | QFile::WriteOwner));
        QCOMPARE(int(QFile::permissions(m_dir.filePath(QStringLiteral("Dictora"))) & 0x0077), 0);
        journal.append(makeRecord(1));
        journal.lock().replaceAll({});
        QCOMPARE(QFileInfo(journalPath()).size(), 0);
        QCOMPARE(int(QFile::permissions(journalPath()) & 0x0077), 0);
    }

    void damagedLinesAreSkippedAndKept_data()
    {
        QTest::addColumn<QByteArray>("between");
        QTest::addColumn<QByteArray>("tail");
        QTest::addColumn<bool>("firstRead");
        QTest::newRow("empty line and garbage") << QByteArray("\n\ngarbage{\n") << QByteArray("\n") << true;
        QTest::newRow("no final line feed") << QByteArray("\n") << QByteArray() << true;
        QTest::newRow("foreign json") << QByteArray("\n{\"hello\":\"world\"}\n") << QByteArray("\n") << true;
        QTest::newRow("binary noise") << QByteArray("\n\x00\xff\xfe\x01\n", 6) << QByteArray("\n") << true;
        QTest::newRow("a CRLF line is not ours") << QByteArray("\r\n") << QByteArray("\n") << false;
    }
    void damagedLinesAreSkippedAndKept()
    {
        QFETCH(QByteArray, between);
        QFETCH(QByteArray, tail);
        QFETCH(bool, firstRead);
        QDir().mkpath(m_dir.filePath(QStringLiteral("Dictora")));
        const TranscriptRecord a = makeRecord(1), b = makeRecord(2);
        const QByteArray bytes = a.toJsonLine() + between + b.toJsonLine() + tail;
        QVERIFY(writeFile(journalPath(), bytes));
        TranscriptJournal journal(journalPath());
        const QList<TranscriptRecord> expected = firstRead ? QList<TranscriptRecord>{a, b} : QList<TranscriptRecord>{b};
        QCOMPARE(journal.readAll(), expected);
        QCOMPARE(readFile(journalPath()), bytes); // nothing repaired
    }

    // Whatever the last line holds, an append stands on a line of its own and
    // the earlier bytes stay exactly as they were.
    void appendAfterTornTail_data()
    {
        QTest::addColumn<QByteArray>("tail");
        QTest::addColumn<int>("readableBefore");
        const QByteArray cut = makeRecord(9).toJsonLine();
        QTest::newRow("record cut by a crash") << cut.left(cut.size() / 2) << 1;
        QTest::newRow("record without its line feed") << cut << 2;
        QTest::newRow("hand edit without line feed") << QByteArray("my own note") << 1;
        QTest::newRow("carriage return only") << QByteArray("\r") << 1;
        QTest::newRow("invalid utf-8") << QByteArray("\xff\xfe{\"id\":") << 1;
        QTest::newRow("clean end") << QByteArray() << 1;
    }
    void appendAfterTornTail()
    {
        QFETCH(QByteArray, tail);
        QFETCH(int, readableBefore);
        QDir().mkpath(m_dir.filePath(QStringLiteral("Dictora")));
        const TranscriptRecord a = makeRecord(1);
        const QByteArray before = a.toJsonLine() + "\n" + tail;
        QVERIFY(writeFile(journalPath(), before));
        TranscriptJournal journal(journalPath());
        QCOMPARE(journal.readAll().size(), readableBefore);

        const TranscriptRecord b = makeRecord(2), c = makeRecord(3);
        journal.append(b);
        journal.append(c);
        const QByteArray after = readFile(journalPath());
        QVERIFY(after.startsWith(before)); // nothing rewritten
        const QList<TranscriptRecord> records = journal.readAll();
        QCOMPARE(records.size(), readableBefore + 2);
        QCOMPARE(records.at(records.size() - 2), b);
        QCOMPARE(records.last(), c);
        QVERIFY(after.endsWith("\n" + b.toJsonLine() + "\n" + c.toJsonLine() + "\n"));
    }

    void concurrentAppendsNeverInterleave()
    {
        TranscriptJournal journal(journalPath());
        constexpr int threads = 4, perThread = 60;
        const QString longText = QString(QLatin1Char('x')).repeated(9000); // larger than a pipe buffer
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                TranscriptJournal copy = journal; // copies share the lock
                for (int i = 0; i < perThread; ++i)
                    copy.append(makeRecord(t * 1000 + i, i % 3 == 0 ? longText : QString()));
            });
        }
        for (auto &w : workers)
            w.join();
        const QByteArray bytes = readFile(journalPath());
        QCOMPARE(bytes.count('\n'), threads * perThread);
        QCOMPARE(journal.readAll().size(), threads * perThread);
    }

    // A file-size limit refuses the append part-way, as a full disk does: the
    // journal is left byte for byte as it was, torn tail included, so a later
    // append neither duplicates nor fuses anything.
    void refusedAppendLeavesFileUnchanged_data()
    {
        QTest::addColumn<QByteArray>("tail");
        QTest::addColumn<int>("room");
        QTest::newRow("no room at all") << QByteArray() << 0;
        QTest::newRow("room for part of a line") << QByteArray() << 40;
        QTest::newRow("torn tail, room for the line feed") << QByteArray("{\"cut") << 1;
        QTest::newRow("torn tail, room for part") << QByteArray("{\"cut") << 60;
    }
    void refusedAppendLeavesFileUnchanged()
    {
        QFETCH(QByteArray, tail);
        QFETCH(int, room);
        QDir().mkpath(m_dir.filePath(QStringLiteral("Dictora")));
        const TranscriptRecord a = makeRecord(1), b = makeRecord(2);
        const QByteArray before = a.toJsonLine() + "\n" + tail;
        QVERIFY(writeFile(journalPath(), before));
        TranscriptJournal journal(journalPath());
        {
            test::FileSizeLimit limit(before.size() + room);
            QVERIFY_THROWS_EXCEPTION(JournalError, journal.append(b));
        }
        QCOMPARE(readFile(journalPath()), before);
        journal.append(b);
        QCOMPARE(journal.readAll(), (QList<TranscriptRecord>{a, b}));
    }
};

QTEST_GUILESS_MAIN(TranscriptJournalTest)
#include "tst_transcript_journal.moc"
