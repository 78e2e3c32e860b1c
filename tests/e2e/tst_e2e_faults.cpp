#include "E2eSupport.h"
#include "support/TestSupport.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

using namespace dictora::test::e2e;
using dictora::test::readFile;
namespace x11 = dictora::test::x11;

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
// deleted or made read-only, the model file damaged under it, a download
// that never ends, a service broken for the doctor. Each gives a clear
// message, the program keeps running, and no dictation is lost.
class TestE2eFaults : public E2eCase {
    Q_OBJECT

    QStringList m_sessions;

    // A silent dictation through "dictora toggle"; waits for its end line.
    bool dictate(const QString &endPrefix, QString *why)
    {
        const QString started = QStringLiteral("recording started session=");
        if (!toggleUntil(started, why))
            return false;
        m_sessions << run->messages().filter(started).last().section(u'=', 1).section(u' ', 0, 0);
        return toggleUntil(endPrefix, why);
    }

    // The scripted program over a journal of old records, each append
    // refused from now on; *before gets the journal as it is.
    bool startWithFullDisk(QByteArray *before, QString *why)
    {
        if (!beginCase(emptyWeightModel(), true, why) || !dictora::test::writeFile(run->journalPath(), oldRecords(400))
            || !startScripted({}, why))
            return false;
        *before = readFile(run->journalPath());
        return limitFileSize(run->pid(), rlim_t(before->size() + 16));
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

    // The journal refuses appends (a file-size limit stands in for a full
    // disk): the dictation ends in error, its record waits in memory and goes
    // in, in order, with the next dictation once there is room.
    void fullDiskKeepsRecordsUntilThereIsRoom()
    {
        QByteArray before;
        QVERIFY2(startWithFullDisk(&before, &why), qPrintable(why));
        QVERIFY2(qint64(before.size()) > QFileInfo(run->logPath()).size() * 4, "the log outgrew the journal");
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

    // Quitting while records wait: one more try, then the user is asked. With
    // room again the last try saves them; without, standard error gets them.
    void quittingWithPendingRecordsTellsTheUser_data()
    {
        QTest::addColumn<bool>("roomBeforeSecondSignal");
        QTest::newRow("room again: saved at quit") << true;
        QTest::newRow("still full: quit anyway") << false;
    }
    void quittingWithPendingRecordsTellsTheUser()
    {
        QFETCH(bool, roomBeforeSecondSignal);
        QByteArray before;
        QVERIFY2(startWithFullDisk(&before, &why), qPrintable(why));
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

    // Hostile files before the start: the program says what it will not use,
    // keeps the user's bytes, and dictation goes on; a journal without a final
    // line feed gets the new record on a line of its own.
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
            QCOMPARE(journalIds().mid(1), m_sessions);
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
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QVERIFY2(startScripted({}, &why), qPrintable(why));
        QVERIFY(QDir(run->dataDirectory()).removeRecursively());
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(journalIds(), m_sessions);
        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(journalIds(), m_sessions);
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // The data folder made read-only (a bind mount, as root): the refusal goes
    // to standard error, as the log may be read-only too, and the record goes
    // in once the folder is writable again.
    void dataFolderReadOnlyWhileRunning()
    {
        if (::geteuid() != 0)
            QSKIP("a read-only bind mount needs root");
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
        QTRY_VERIFY2_WITH_TIMEOUT(run->programOutput().contains(failed) || run->countLines(failed) > 0,
            qPrintable(run->programOutput()), 30000);
        unmount.dismiss();
        QCOMPARE(QProcess::execute(QStringLiteral("umount"), {folder}), 0);

        QVERIFY2(dictate(QStringLiteral("recording completed outcome="), &why), qPrintable(why));
        QCOMPARE(run->countLines(QStringLiteral("pending journal records appended count=1")), 1);
        QCOMPARE(journalIds().size(), 2);
        QCOMPARE(journalIds().last(), m_sessions.last());
        QVERIFY2(run->stop(&why), qPrintable(why));
    }

    // The model file cut short after it was loaded: recognition runs on what
    // was loaded; the next start finds the file wrong, says so and refuses to
    // record until a good copy is in place.
    void modelFileDamagedWhileLoaded()
    {
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

    // `dictora model install` while the running program is still downloading
    // (from a server that never finishes): the program drops the download,
    // loads the installed file and becomes ready without a restart.
    void installDuringDownload()
    {
        QTcpServer silent;
        QList<QTcpSocket *> held;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        connect(&silent, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket *socket = silent.nextPendingConnection())
                held.append(socket);
        });
        ModelContract contract = emptyWeightModel();
        contract.url = QStringLiteral("http://127.0.0.1:%1/%2").arg(silent.serverPort()).arg(contract.fileName);

        QVERIFY2(beginCase(contract, false, &why), qPrintable(why));
        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        QTRY_VERIFY_WITH_TIMEOUT(!held.isEmpty(), 30000); // the download is under way

        QString said;
        QVERIFY2(run->runVerb(dictoraBinary(), {QStringLiteral("model"), QStringLiteral("install"), testModelPath(contract.fileName)},
                     &said) == 0,
            qPrintable(said));
        QVERIFY2(said.contains(QStringLiteral("The running Dictora is loading it now.")), qPrintable(said));

        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        const QString models = run->dataDirectory() + QStringLiteral("/Models/");
        QVERIFY(!QFile::exists(models + contract.fileName + QStringLiteral(".partial")));
        QCOMPARE(QFileInfo(models + contract.fileName).size(), contract.bytes);

        QString shown;
        run->runVerb(dictoraBinary(), {QStringLiteral("model"), QStringLiteral("status")}, &shown);
        QVERIFY2(shown.contains(QStringLiteral("verified: yes")), qPrintable(shown));
        QVERIFY2(shown.contains(QStringLiteral("running:  Accuracy model ready")), qPrintable(shown));
    }

    // `dictora doctor`: the exit status says whether a dictation can work, and
    // a deliberately broken service is named as the failure, by the program
    // itself or, while one runs, by the running Dictora.
    void reportsWhatIsBroken_data()
    {
        QTest::addColumn<QString>("broken");
        QTest::addColumn<bool>("running");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("nothing, checked here") << QString() << false << 0;
        QTest::newRow("nothing, asked of the running program") << QString() << true << 0;
        QTest::newRow("model missing") << QStringLiteral("model") << false << 1;
        QTest::newRow("no microphone") << QStringLiteral("microphone") << false << 1;
        QTest::newRow("shortcut taken") << QStringLiteral("shortcut") << false << 1;
        // Not a failure: the default input is heard instead, and the doctor says so.
        QTest::newRow("chosen microphone unplugged") << QStringLiteral("chosen microphone") << false << 0;
    }

    void reportsWhatIsBroken()
    {
        QFETCH(QString, broken);
        QFETCH(bool, running);
        QFETCH(int, exitCode);

        QVERIFY2(beginCase(emptyWeightModel(), broken != QLatin1String("model"), &why), qPrintable(why));
        if (broken == QLatin1String("microphone"))
            run->setEnvironment(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:/nonexistent/pulse"));
        std::unique_ptr<x11::ForeignGrab> grab;
        if (broken == QLatin1String("shortcut")) {
            grab = std::make_unique<x11::ForeignGrab>(keyboard.keycode("grave"), 0);
            QVERIFY(grab->isHeld());
        }
        if (broken == QLatin1String("chosen microphone"))
            run->writeSettings({{QStringLiteral("audio.microphone.source"), QStringLiteral("unplugged_usb")}});
        if (running) {
            QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
            QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        }

        QString output;
        const int code = run->runVerb(dictoraBinary(), {QStringLiteral("doctor"), QStringLiteral("--json")}, &output);
        const QStringList lines = output.split(u'\n').filter(QRegularExpression(QStringLiteral("^\\{")));
        const QJsonDocument json = QJsonDocument::fromJson(lines.value(0).toUtf8());
        QVERIFY2(json.isObject(), qPrintable(output));
        QCOMPARE(code, exitCode);
        QCOMPARE(json.object().value("dictationWorks").toBool(), exitCode == 0);

        QStringList failed;
        QHash<QString, QJsonObject> checks;
        for (const QJsonValue &value : json.object().value("checks").toArray()) {
            const QJsonObject check = value.toObject();
            checks.insert(check.value("id").toString(), check);
            if (check.value("status").toString() == QLatin1String("failed")) {
                failed << check.value("id").toString();
                QVERIFY2(!check.value("advice").toString().isEmpty(), qPrintable(check.value("id").toString()));
            }
        }
        QCOMPARE(failed, exitCode == 0 ? QStringList() : QStringList{broken});
        QCOMPARE(checks.value("shortcut").value("mechanism").toString(), QStringLiteral("x11-key-grab"));
        QCOMPARE(checks.value("keystroke").value("mechanism").toString(), QStringLiteral("x11-xtest"));
        if (broken != QLatin1String("model"))
            QVERIFY2(checks.value("device").value("detail").toString().contains(QStringLiteral("warm recognition")),
                qPrintable(checks.value("device").value("detail").toString()));
        // The sound server's virtual microphone hears silence: working, with a warning.
        if (exitCode == 0)
            QCOMPARE(checks.value("microphone").value("status").toString(), QStringLiteral("warning"));
        QCOMPARE(checks.value("microphone").value("detail").toString().contains(QStringLiteral("not connected")),
            broken == QLatin1String("chosen microphone"));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eFaults)
#include "tst_e2e_faults.moc"
