#include "E2eSupport.h"
#include "support/TestSupport.h"

#include <QGuiApplication>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

using namespace dictora::test::e2e;
using dictora::test::readFile;

namespace {

// Old dictations, so the journal is larger than the log: a file-size limit
// just above the journal then refuses journal appends and nothing else.
QByteArray oldRecords(int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        bytes += QStringLiteral("{\"finalizationDurationMilliseconds\":1,\"id\":\"%1\",\"outcome\":\"pasted\","
                                "\"pasteDispatchDurationMilliseconds\":1,\"recordingDurationMilliseconds\":1,"
                                "\"recordingEndedAt\":1700000000500,\"recordingStartedAt\":1700000000000,"
                                "\"savedAt\":1700000000600,\"totalDurationMilliseconds\":600,\"transcript\":\"old dictation %2 %3\"}\n")
                     .arg(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper())
                     .arg(i)
                     .arg(QString(200, u'x'))
                     .toUtf8();
    }
    return bytes;
}

bool limitFileSize(qint64 pid, rlim_t bytes)
{
    rlimit limit{};
    if (prlimit(pid_t(pid), RLIMIT_FSIZE, nullptr, &limit) != 0)
        return false;
    limit.rlim_cur = bytes;
    return prlimit(pid_t(pid), RLIMIT_FSIZE, &limit, nullptr) == 0;
}

} // namespace

// Faults at the edges of the running program: a full disk, a data folder
// deleted or made read-only, the model file pulled from under it. Each gives
// a clear message, the program keeps running, and no dictation is lost.
class TestE2eFaults : public E2eCase {
    Q_OBJECT

    QStringList m_sessions;

    // A silent dictation through "dictora toggle"; waits for its end line.
    bool dictate(const QString &endPrefix, QString *why)
    {
        const int started = run->countLines(QStringLiteral("recording started session="));
        const int ended = run->countLines(endPrefix);
        if (!verb(QStringLiteral("toggle"), why)
            || !run->waitForLines(QStringLiteral("recording started session="), started + 1, 30000, why))
            return false;
        m_sessions << run->messages().filter(QStringLiteral("recording started session=")).last()
                          .section(u'=', 1).section(u' ', 0, 0);
        return verb(QStringLiteral("toggle"), why) && run->waitForLines(endPrefix, ended + 1, 30000, why);
    }

    QStringList journalIds()
    {
        QStringList ids;
        for (const QJsonObject &record : run->records())
            ids << record.value(QLatin1String("id")).toString();
        return ids;
    }

private Q_SLOTS:
    void init() { m_sessions.clear(); }
    void cleanup() { endCase(); }

    // The journal refuses appends (a file-size limit on the running program
    // fails the write where a full disk would): the dictation ends in the
    // error phase as any journal failure does, its record waits in memory,
    // and goes in, in order, with the next dictation once there is room.
    void fullDiskKeepsRecordsUntilThereIsRoom()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY(dictora::test::writeFile(run->journalPath(), oldRecords(400)));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        const QByteArray before = readFile(run->journalPath());
        QVERIFY2(qint64(before.size()) > QFileInfo(run->logPath()).size() * 4, "the log outgrew the journal");

        QVERIFY(limitFileSize(run->pid(), rlim_t(before.size() + 16)));
        for (int refused = 1; refused <= 2; ++refused) {
            QVERIFY2(dictate(QStringLiteral("recording finalization failed error="), &why), qPrintable(why));
            QVERIFY2(run->countLines(QStringLiteral("journal record kept in memory until the journal accepts writes id=")
                         + m_sessions.last() + QStringLiteral(" pending=%1").arg(refused)) == 1,
                qPrintable(run->logText()));
        }
        QVERIFY2(linesInOrder(run->messages(),
                     {QStringLiteral("journal append begin"), QStringLiteral("journal record kept in memory"),
                         QStringLiteral("journal record still kept in memory id=") + m_sessions.last(),
                         QStringLiteral("failed recording archive unavailable error="),
                         QStringLiteral("recording finalization failed error=") + run->journalPath()
                             + QStringLiteral(": File too large")},
                     &why),
            qPrintable(why));
        QCOMPARE(readFile(run->journalPath()), before);

        QVERIFY(limitFileSize(run->pid(), RLIM_INFINITY));
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QVERIFY2(linesInOrder(run->messages(),
                     {QStringLiteral("journal append begin"), QStringLiteral("pending journal records appended count=2"),
                         QStringLiteral("journal append complete"), QStringLiteral("recording completed outcome=empty")},
                     &why),
            qPrintable(why));
        const QByteArray after = readFile(run->journalPath());
        QVERIFY(after.startsWith(before));
        QCOMPARE(journalIds().mid(400), m_sessions);
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // Quitting while records wait: one more try, then the user is asked.
    // With room again the last try saves them; without, the records are
    // written to standard error so the session log still has them.
    void quittingWithPendingRecordsTellsTheUser_data()
    {
        QTest::addColumn<bool>("roomBeforeSecondSignal");
        QTest::newRow("room again: saved at quit") << true;
        QTest::newRow("still full: quit anyway") << false;
    }
    void quittingWithPendingRecordsTellsTheUser()
    {
        QFETCH(bool, roomBeforeSecondSignal);
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY(dictora::test::writeFile(run->journalPath(), oldRecords(400)));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        const QByteArray before = readFile(run->journalPath());
        QVERIFY(limitFileSize(run->pid(), rlim_t(before.size() + 16)));
        QVERIFY2(dictate(QStringLiteral("recording finalization failed error="), &why), qPrintable(why));

        ::kill(pid_t(run->pid()), SIGTERM);
        QVERIFY2(run->waitForLines(QStringLiteral("quit notice shown pending=1"), 1, 30000, &why), qPrintable(why));
        QVERIFY(run->countLines(QStringLiteral("quitting with unsaved dictations pending=1 error=")) == 1);
        if (roomBeforeSecondSignal)
            QVERIFY(limitFileSize(run->pid(), RLIM_INFINITY));
        ::kill(pid_t(run->pid()), SIGTERM); // the notice's answer, as a session ending gives it
        QVERIFY2(run->stop(&why), qPrintable(why));
        if (roomBeforeSecondSignal) {
            QCOMPARE(run->countLines(QStringLiteral("pending journal records appended count=1")), 1);
            QCOMPARE(journalIds().mid(400), m_sessions);
        } else {
            QCOMPARE(run->countLines(QStringLiteral("app quit with unsaved dictations count=1")), 1);
            QVERIFY2(run->programOutput().contains(QStringLiteral("dictora: unsaved dictation: {")
                         + QStringLiteral("\"earsDurationMilliseconds\"")),
                qPrintable(run->programOutput()));
            QVERIFY(run->programOutput().contains(m_sessions.first()));
            QCOMPARE(readFile(run->journalPath()), before);
        }
    }

    // Hostile files in place before the program starts: it starts, says what
    // it will not use, keeps the user's bytes, and dictation goes on. A
    // journal whose last line has no line feed gets the new record on a line
    // of its own.
    void startsOverHostileFiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("logLine");
        const QByteArray oldRecord = oldRecords(1);
        QTest::newRow("journal cut mid-record") << "transcripts.jsonl" << oldRecord + oldRecord.left(90) << QString();
        QTest::newRow("journal ends with a hand-written note") << "transcripts.jsonl" << oldRecord + "my note" << QString();
        QTest::newRow("settings are binary") << "Dictora.ini" << QByteArray("\x7f" "ELF\x00\x01", 6)
                                        << "settings file unreadable, defaults used; the old file is kept as ";
        QTest::newRow("snippets are not utf-8") << "snippets.json" << QByteArray("[{\"trigger\":\"\xc3\x28\"}]")
                                           << "snippets file unreadable, starting without snippets";
    }
    void startsOverHostileFiles()
    {
        QFETCH(QString, file);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, logLine);
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        const QString path = file == QLatin1String("Dictora.ini") ? run->root() + QStringLiteral("/config/Dictora/Dictora.ini")
                                                                 : run->dataDirectory() + u'/' + file;
        QVERIFY(dictora::test::writeFile(path, bytes));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        if (!logLine.isEmpty())
            QVERIFY2(run->countLines(logLine) == 1, qPrintable(run->logText()));

        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        if (file == QLatin1String("transcripts.jsonl")) {
            QVERIFY(readFile(path).startsWith(bytes)); // nothing rewritten or repaired
            QCOMPARE(journalIds().mid(journalIds().size() - 2), m_sessions);
            QCOMPARE(journalIds().size(), 3);
        } else {
            QCOMPARE(journalIds(), m_sessions);
        }
        if (file == QLatin1String("Dictora.ini")) {
            const QString kept = run->messages().filter(logLine).first().mid(logLine.size()).section(u' ', 0, 0);
            QCOMPARE(readFile(kept), bytes);
        } else if (file == QLatin1String("snippets.json")) {
            QCOMPARE(readFile(path), bytes); // untouched until the user changes a snippet
        }
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // The whole data folder removed while running: the next dictation makes
    // it again, with the log and the journal.
    void dataFolderDeletedWhileRunning()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        QVERIFY(QDir(run->dataDirectory()).removeRecursively());
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(journalIds(), m_sessions);
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(journalIds(), m_sessions);
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // The data folder made read-only under the program (a read-only bind
    // mount, as root): the refusal is reported on standard error, since the
    // log cannot be written either, and the record goes in once it is
    // writable again.
    void dataFolderReadOnlyWhileRunning()
    {
        if (::geteuid() != 0)
            QSKIP("a read-only bind mount needs root");
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        const QString folder = run->dataDirectory();
        if (QProcess::execute(QStringLiteral("mount"), {QStringLiteral("--bind"), folder, folder}) != 0)
            QSKIP("bind mounts are not allowed here");
        auto unmount = qScopeGuard([&] { QProcess::execute(QStringLiteral("umount"), {folder}); });
        QCOMPARE(QProcess::execute(QStringLiteral("mount"),
                     {QStringLiteral("-o"), QStringLiteral("remount,ro,bind"), folder}), 0);

        const QString failed = QStringLiteral("recording finalization failed error=") + run->journalPath()
            + QStringLiteral(": Read-only file system");
        QVERIFY2(verb(QStringLiteral("toggle"), &why), qPrintable(why));
        QTest::qWait(500);
        QVERIFY2(verb(QStringLiteral("toggle"), &why), qPrintable(why));
        // The log was open before the folder turned read-only and may go on;
        // where it cannot, standard error has the line.
        const auto told = [&] { return run->programOutput().contains(failed) || run->countLines(failed) > 0; };
        QDeadlineTimer deadline(30000);
        while (!told() && !deadline.hasExpired())
            QTest::qWait(50);
        QVERIFY2(told(), qPrintable(run->programOutput()));
        unmount.dismiss();
        QCOMPARE(QProcess::execute(QStringLiteral("umount"), {folder}), 0);

        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(run->countLines(QStringLiteral("pending journal records appended count=1")), 1);
        QCOMPARE(journalIds().size(), 2);
        QCOMPARE(journalIds().last(), m_sessions.last());
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // The model file cut short after it was loaded (a file that is there
    // but wrong; a deleted one is merely missing): recognition runs on what
    // was loaded; the next start finds the file wrong, says so and refuses
    // to record until a good copy is in place.
    void modelFileDamagedWhileLoaded()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        QFile model(run->dataDirectory() + QStringLiteral("/Models/") + emptyWeightModel().fileName);
        QVERIFY(model.resize(model.size() / 3));

        QVERIFY2(startDictation(1, &why), qPrintable(why));
        QVERIFY2(finishDictation(1, 1.5, &why), qPrintable(why));
        QVERIFY2(run->messages().contains(QStringLiteral("accurate local finalization returned rawChars=0 formattedChars=0")),
            qPrintable(run->logText()));
        QCOMPARE(run->records().size(), 1);
        QVERIFY2(run->stop(&why), qPrintable(why));

        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitForLines(QStringLiteral("accuracy model preparation failed error="), 1, 60000, &why), qPrintable(why));
        QVERIFY2(verb(QStringLiteral("toggle"), &why), qPrintable(why));
        QVERIFY2(run->waitForLines(QStringLiteral("recording blocked because mandatory accuracy model is not ready"), 1, 30000, &why),
            qPrintable(why));
        QCOMPARE(run->records().size(), 1);
        QVERIFY2(run->stop(&why), qPrintable(why));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eFaults)
#include "tst_e2e_faults.moc"
