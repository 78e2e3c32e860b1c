#include "core/DataPaths.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QtTest>

// The real binary, started twice in one isolated session.
class SingleInstanceTest : public QObject {
    Q_OBJECT

    dictora::test::IsolatedHome m_home;

    static QString readAll(const QString &path) { return QString::fromUtf8(dictora::test::readFile(path)); }

private Q_SLOTS:
    void initTestCase()
    {
        // Never fetch the real model from a test: a contract whose source refuses at once.
        const QString contract = m_home.path() + QStringLiteral("/contract.json");
        QVERIFY(dictora::test::writeFile(contract, "{\"fileName\":\"absent.bin\",\"bytes\":4,\"url\":\"http://127.0.0.1:9/absent.bin\","
            "\"sha256\":\"88d4266fd4e6338d13b845fcf289579d209c897823b9217da3e161936f031589\"}"));
        qputenv("DICTORA_MODEL_CONTRACT", contract.toUtf8());
    }

    void secondStartFindsTheFirst()
    {
        QProcess first;
        first.setProcessChannelMode(QProcess::ForwardedChannels);
        first.start(QStringLiteral(DICTORA_BINARY), {QStringLiteral("-platform"), QStringLiteral("offscreen")});
        QVERIFY(first.waitForStarted());
        const QString log = dictora::DataPaths::logFile();
        QTRY_VERIFY_WITH_TIMEOUT(readAll(log).contains(QStringLiteral("app started dataDirectory=")), 20000);
        QVERIFY(readAll(log).contains(dictora::DataPaths::dataDirectory()));
        QCOMPARE(QFile::permissions(dictora::DataPaths::dataDirectory()) & 0x0077, QFileDevice::Permissions());

        const dictora::test::ProgramRun second = dictora::test::runProgram(QStringLiteral(DICTORA_BINARY),
            {QStringLiteral("-platform"), QStringLiteral("offscreen")}, {}, QProcessEnvironment::systemEnvironment(), 20000);
        QCOMPARE(second.exitCode, 0);
        QVERIFY(second.out.contains(QStringLiteral("already running")));
        QCOMPARE(first.state(), QProcess::Running);
        QTRY_VERIFY_WITH_TIMEOUT(readAll(log).contains(QStringLiteral("second launch")), 10000);

        first.terminate();
        QVERIFY(first.waitForFinished(10000));
        QCOMPARE(first.exitStatus(), QProcess::NormalExit);
        // A clean exit removes the socket, so the next start is a first start again.
        QVERIFY(!QFile::exists(dictora::DataPaths::instanceSocket()));
    }

    void malformedContractStopsTheStart()
    {
        const QString contract = m_home.path() + QStringLiteral("/broken.json");
        QVERIFY(dictora::test::writeFile(contract, "{\"fileName\": 3"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DICTORA_MODEL_CONTRACT"), contract);
        const dictora::test::ProgramRun app = dictora::test::runProgram(QStringLiteral(DICTORA_BINARY),
            {QStringLiteral("-platform"), QStringLiteral("offscreen")}, {}, env, 20000);
        QCOMPARE(app.exitCode, 1);
        QVERIFY2(app.err.contains(QStringLiteral("broken.json")), "the message names the file");
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "tst_single_instance.moc"
