#include "E2eSupport.h"
#include "support/TestSupport.h"

#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QRandomGenerator>
#include <QSet>
#include <QtTest>

#include <csignal>
#include <unistd.h>

using namespace dictora::test::e2e;

namespace {

// The sessions whose record the log reported as appended.
QSet<QString> appendedSessions(const QStringList &messages)
{
    QSet<QString> appended;
    QString current;
    for (const QString &m : messages) {
        if (m.startsWith(QLatin1String("recording started session=")))
            current = m.mid(int(qstrlen("recording started session="))).section(u' ', 0, 0);
        else if (m.startsWith(QLatin1String("app started")))
            current.clear();
        else if (m == QLatin1String("journal append complete") && !current.isEmpty())
            appended.insert(current);
    }
    return appended;
}

} // namespace

// SIGKILL at random moments around dictations. Every record the log called
// appended reads back after the restart, earlier ones stay readable, and no
// journal line ever holds two records.
class TestE2eCrashSafety : public E2eCase {
    Q_OBJECT

    // The ids the real reader (dictora history --json) returns.
    bool readableIds(QSet<QString> *ids, QString *why)
    {
        QString output;
        if (run->runVerb(dictoraBinary(), {QStringLiteral("history"), QStringLiteral("--json")}, &output) != 0) {
            *why = QStringLiteral("dictora history failed: ") + output;
            return false;
        }
        ids->clear();
        for (const QString &line : output.split(u'\n', Qt::SkipEmptyParts))
            ids->insert(QJsonDocument::fromJson(line.toUtf8()).object().value(QLatin1String("id")).toString());
        return true;
    }

    bool noFusedLines(QString *why)
    {
        const QList<QByteArray> lines = dictora::test::readFile(run->journalPath()).split('\n');
        for (qsizetype i = 0; i < lines.size(); ++i) {
            if (lines.at(i).count("\"transcriptionEngine\"") > 1 || lines.at(i).count("\"id\":") > 1) {
                *why = QStringLiteral("journal line %1 holds two records: %2").arg(i + 1).arg(QString::fromUtf8(lines.at(i)));
                return false;
            }
        }
        return true;
    }

    // Starts a recording and waits until it runs: a press while the start is
    // in flight is dropped by design.
    bool startRecording(QString *why) { return toggleUntil(QStringLiteral("recording started session="), why); }

    bool sendStop(QString *why)
    {
        QLocalSocket socket;
        socket.connectToServer(run->root() + QStringLiteral("/runtime/dictora.socket"));
        if (!socket.waitForConnected(5000) || socket.write("toggle\n") != 7 || !socket.waitForBytesWritten(5000)) {
            *why = QStringLiteral("cannot reach the program's socket: ") + socket.errorString();
            return false;
        }
        return true;
    }

    void killNow()
    {
        ::kill(pid_t(run->pid()), SIGKILL);
        while (run->isRunning())
            QTest::qWait(5);
    }

private Q_SLOTS:
    void cleanup() { endCase(); }

    void killedAtRandomMomentsLosesNothing()
    {
        const quint32 seed = quint32(qEnvironmentVariableIntValue("DICTORA_CRASH_SEED")) ?: 1414u;
        const int kills = qEnvironmentVariableIntValue("DICTORA_CRASH_KILLS") ?: 32;
        QRandomGenerator random(seed);
        qInfo("seed %u, %d kills (DICTORA_CRASH_SEED, DICTORA_CRASH_KILLS)", seed, kills);

        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), QStringLiteral("survives a crash"));

        enum Moment { idle, recording, aroundAppend, afterAppend, momentCount };
        const char *names[] = {"while idle", "while recording", "around the append", "after the append"};
        int perMoment[momentCount] = {};
        QSet<QString> readableBefore;
        int insideAppend = 0; // the log's last word was "journal append begin"
        for (int k = 0; k < kills; ++k) {
            QVERIFY2(startScripted({}, &why), qPrintable(why));
            // A few whole dictations first, so kills land on a journal of any length.
            const int whole = int(random.bounded(3));
            for (int d = 0; d < whole; ++d)
                QVERIFY2(startRecording(&why) && toggleUntil(QStringLiteral("recording completed outcome="), &why),
                    qPrintable(why));
            // The append is the moment that matters most: it gets two shares.
            const int draw = int(random.bounded(int(momentCount) + 1));
            const auto moment = draw >= int(momentCount) ? aroundAppend : Moment(draw);
            ++perMoment[moment];
            switch (moment) {
            case idle:
                ::usleep(random.bounded(200000u));
                break;
            case recording:
                QVERIFY2(verb(QStringLiteral("toggle"), &why), qPrintable(why));
                ::usleep(random.bounded(200000u));
                break;
            case aroundAppend:
                // The stop goes straight to the socket and the kill follows within
                // milliseconds: before the append, inside it, or just after it.
                QVERIFY2(startRecording(&why), qPrintable(why));
                QTest::qWait(int(random.bounded(100u)));
                QVERIFY2(sendStop(&why), qPrintable(why));
                ::usleep(random.bounded(6000u));
                break;
            case afterAppend:
                QVERIFY2(startRecording(&why) && toggleUntil(QStringLiteral("journal append complete"), &why),
                    qPrintable(why));
                ::usleep(random.bounded(20000u));
                break;
            case momentCount:
                break;
            }
            killNow();
            const QStringList messages = run->messages();
            if (!messages.isEmpty() && messages.last() == QLatin1String("journal append begin"))
                ++insideAppend;

            QSet<QString> readable;
            QVERIFY2(readableIds(&readable, &why), qPrintable(why));
            for (const QString &id : appendedSessions(messages))
                QVERIFY2(readable.contains(id), qPrintable(QStringLiteral("kill %1 (%2): record %3 was logged as appended but does not read back")
                                                               .arg(k + 1).arg(QLatin1String(names[moment]), id)));
            for (const QString &id : std::as_const(readableBefore))
                QVERIFY2(readable.contains(id), qPrintable(QStringLiteral("kill %1 (%2): earlier record %3 became unreadable")
                                                               .arg(k + 1).arg(QLatin1String(names[moment]), id)));
            QVERIFY2(noFusedLines(&why), qPrintable(why));
            readableBefore = readable;
        }

        qInfo("%d kills: %d while idle, %d while recording, %d around the append (%d inside it), %d after the append",
            kills, perMoment[idle], perMoment[recording], perMoment[aroundAppend], insideAppend, perMoment[afterAppend]);
        QVERIFY(!appendedSessions(run->messages()).isEmpty());
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eCrashSafety)
#include "tst_e2e_crash_safety.moc"
