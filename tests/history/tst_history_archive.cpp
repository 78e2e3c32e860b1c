#include "HistoryTestRecords.h"
#include "history/TranscriptHistoryArchive.h"
#include "support/TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

using namespace dictora;
using dictora::test::readFile;
using dictora::test::writeFile;
using dictora::test::recordSavedAt;
using dictora::test::utc;

namespace {

QString g_journalPath;
std::thread g_appender;
TranscriptRecord g_lateRecord = recordSavedAt(utc("2026-06-01T08:00:00Z"), QStringLiteral("finished during the archive"));

void corruptArchive(const QString &destination)
{
    QFile f(destination);
    f.open(QIODevice::ReadWrite);
    QByteArray bytes = f.readAll();
    bytes.replace("first", "fir5t"); // still valid JSON, different content
    f.seek(0);
    f.write(bytes);
}

void appendFromAnotherThread(const QString &)
{
    // Blocks on the journal lock until the archive has cleared the journal.
    g_appender = std::thread([] { TranscriptJournal(g_journalPath).append(g_lateRecord); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

} // namespace

class HistoryArchiveTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    TranscriptJournal m_journal{m_dir.filePath(QStringLiteral("transcripts.jsonl"))};
    QString destination() const { return m_dir.filePath(QStringLiteral("archive.json")); }

    void writeJournal(const QByteArray &bytes) { QVERIFY(writeFile(m_journal.filePath(), bytes)); }

private Q_SLOTS:
    void init()
    {
        QFile::remove(m_journal.filePath());
        QFile::remove(destination());
        g_journalPath = m_journal.filePath();
    }

    void archivesGoodRecordsAndClearsEverything()
    {
        const TranscriptRecord a = recordSavedAt(utc("2026-01-02T03:04:05.006Z"), QStringLiteral("first / line"));
        TranscriptRecord b = recordSavedAt(utc("2026-01-03T03:04:05Z"), QStringLiteral("second"));
        b.targetApplication = TargetApplication{QStringLiteral("xterm"), std::nullopt, 12};
        b.earsDurationMilliseconds = 840;
        writeJournal(a.toJsonLine() + "\n{corrupt\n" + b.toJsonLine() + "\n");
        // Sub-millisecond precision must still verify.
        const QDateTime exportedAt = QDateTime::fromMSecsSinceEpoch(1767225600123, Qt::UTC);
        const TranscriptHistoryArchive archive = archiveAndClear(m_journal, destination(), exportedAt);
        QCOMPARE(archive.recordCount, 2);
        QCOMPARE(archive.records, (QList<TranscriptRecord>{a, b}));
        QCOMPARE(QFileInfo(m_journal.filePath()).size(), 0); // the corrupt line went too

        const QByteArray bytes = readFile(destination());
        QVERIFY(bytes.contains("\n    ")); // pretty-printed
        QVERIFY(bytes.contains("first / line")); // slashes not escaped
        const QJsonObject top = QJsonDocument::fromJson(bytes).object();
        QCOMPARE(top.keys(), (QStringList{"exportedAt", "formatVersion", "productName", "productVersion", "recordCount", "records"}));
        QCOMPARE(qint64(top.value("exportedAt").toDouble()), 1767225600123LL);
        QCOMPARE(TranscriptHistoryArchive::fromJson(bytes), std::optional<TranscriptHistoryArchive>(archive));
    }

    void verificationFailureLeavesJournalAndFile()
    {
        m_journal.append(recordSavedAt(utc("2026-01-02T03:04:05Z"), QStringLiteral("first")));
        const QByteArray before = readFile(m_journal.filePath());
        try {
            detail::archiveAndClear(m_journal, destination(), QDateTime::currentDateTimeUtc(), &corruptArchive);
            QFAIL("a changed archive verified");
        } catch (const TranscriptHistoryArchiveError &e) {
            QCOMPARE(e.kind(), TranscriptHistoryArchiveError::Kind::verificationFailed);
            QCOMPARE(e.description(), QStringLiteral("The saved archive could not be verified. History was not cleared."));
        }
        QCOMPARE(readFile(m_journal.filePath()), before);
        QVERIFY(QFile::exists(destination()));
    }

    void dictationDuringArchiveLandsInNewJournal()
    {
        const TranscriptRecord old = recordSavedAt(utc("2026-01-02T03:04:05Z"), QStringLiteral("archived"));
        m_journal.append(old);
        const auto archive = detail::archiveAndClear(m_journal, destination(), QDateTime::currentDateTimeUtc(), &appendFromAnotherThread);
        g_appender.join();
        QCOMPARE(archive.records, QList<TranscriptRecord>{old});
        QCOMPARE(m_journal.readAll(), QList<TranscriptRecord>{g_lateRecord});
    }

    void suggestedFilenameUsesPosixDigits()
    {
        qputenv("TZ", "UTC");
        ::tzset();
        QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
        QCOMPARE(TranscriptHistoryArchive::suggestedFilename(utc("2026-11-15T19:02:59Z")),
            QStringLiteral("Dictora History 2026-11-15 1902.json"));
        QLocale::setDefault(QLocale::c());
    }
};

QTEST_GUILESS_MAIN(HistoryArchiveTest)
#include "tst_history_archive.moc"
