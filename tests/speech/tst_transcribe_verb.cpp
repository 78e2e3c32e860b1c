#include "LocalHttpServer.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

using dictora::test::HttpAnswer;
using dictora::test::LocalHttpServer;

namespace {

constexpr qint64 kModelBytes = 575451;
const char *const kModelHash = "c486fb9f14a28b1c1dc252741a431646cc573450c900b9d9c406e10294aa01e6";

using Run = dictora::test::ProgramRun;

} // namespace

// `dictora transcribe` as a user runs it: the real executable, an isolated
// data home, a stand-in model contract and a local model server.
class TranscribeVerbTest : public QObject {
    Q_OBJECT

private:
    QString modelsFolder() const { return m_home->dataHome() + QStringLiteral("/Dictora/Models"); }
    QString recording() const { return dictora::test::sharedTestData() + QStringLiteral("/speech/jfk.wav"); }

    QString writeContract(const QString &urlPath)
    {
        const QJsonObject contract{{"fileName", "stand-in.bin"}, {"bytes", kModelBytes}, {"sha256", kModelHash},
            {"url", m_server.url(urlPath).toString()}};
        const QString path = m_home->path() + QStringLiteral("/contract.json");
        return dictora::test::writeFile(path, QJsonDocument(contract).toJson()) ? path : QString();
    }

    // Runs while this thread keeps serving HTTP.
    Run run(const QStringList &arguments, const QString &contract)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DICTORA_MODEL_CONTRACT"), contract);
        return dictora::test::runProgram(QStringLiteral(DICTORA_EXECUTABLE),
            QStringList{QStringLiteral("transcribe")} + arguments, {}, environment, 240000);
    }

    std::unique_ptr<dictora::test::IsolatedHome> m_home;
    LocalHttpServer m_server;
    QByteArray m_model;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.listen());
        m_model = dictora::test::readFile(dictora::test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.bin"));
        QVERIFY(!m_model.isEmpty());
    }
    void init() { m_home = std::make_unique<dictora::test::IsolatedHome>(); }

    void usage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::newRow("help") << QStringList{"--help"} << 0 << "Usage: dictora transcribe";
        QTest::newRow("no file") << QStringList{} << 2 << "no audio file given";
        QTest::newRow("two files") << QStringList{"a.wav", "b.wav"} << 2 << "one audio file at a time";
        QTest::newRow("unknown option") << QStringList{"--fast", "a.wav"} << 2 << "unknown option '--fast'";
    }
    void usage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        const Run result = run(arguments, writeContract(QStringLiteral("/unused")));
        QCOMPARE(result.exitCode, exitCode);
        QVERIFY2((result.out + result.err).contains(message), qPrintable(result.out + result.err));
    }

    // The first run fetches the model (through a redirect); the next one
    // verifies the installed copy and fetches nothing.
    void downloadsAMissingModelOnce()
    {
        m_server.script(QStringLiteral("/storage/stand-in.bin"), {HttpAnswer::ok(m_model)});
        m_server.script(QStringLiteral("/resolve/stand-in.bin"),
            {HttpAnswer::redirect(m_server.url(QStringLiteral("/storage/stand-in.bin")))});
        const QString contract = writeContract(QStringLiteral("/resolve/stand-in.bin"));
        const Run result = run({QStringLiteral("--raw"), recording()}, contract);
        QCOMPARE(result.exitCode, 0);
        QVERIFY2(result.err.contains(QStringLiteral("Downloading the accuracy model…\n")), qPrintable(result.err));
        QVERIFY2(result.err.contains(QStringLiteral("100% (0.6 of 0.6 MB)")), qPrintable(result.err));
        QVERIFY2(result.err.contains(QStringLiteral("Accuracy model ready\n")), qPrintable(result.err));
        QCOMPARE(dictora::test::readFile(modelsFolder() + QStringLiteral("/stand-in.bin")), m_model);
        QVERIFY(!QFile::exists(modelsFolder() + QStringLiteral("/stand-in.bin.partial")));

        const Run again = run({recording()}, contract);
        QCOMPARE(again.exitCode, 0);
        QVERIFY2(again.err.contains(QStringLiteral("Verifying every byte…\nStarting the local speech engine…\nAccuracy model ready\n")),
            qPrintable(again.err));
        QVERIFY2(!again.err.contains(QStringLiteral("Downloading")), qPrintable(again.err));
        QCOMPARE(m_server.requestCount(QStringLiteral("/resolve/stand-in.bin")), 1);
        // The stand-in model has no weights: the run completes and finds no words.
        QCOMPARE(again.out, QString());
        QVERIFY2(again.err.contains(QStringLiteral("(no speech recognised)")), qPrintable(again.err));
    }

    void givesUpWhenTheModelCannotBeMadeReady()
    {
        m_server.script(QStringLiteral("/gone.bin"), {HttpAnswer::failing(404)});
        const Run result = run({recording()}, writeContract(QStringLiteral("/gone.bin")));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains(QStringLiteral("Retrying automatically: The model server returned HTTP 404.")),
            qPrintable(result.err));
        QVERIFY2(result.err.contains(QStringLiteral(
                     "dictora transcribe: the accuracy model could not be made ready: The model server returned HTTP 404.")),
            qPrintable(result.err));
        QVERIFY(result.out.isEmpty());
        QVERIFY(!QFile::exists(modelsFolder() + QStringLiteral("/stand-in.bin")));
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(TranscribeVerbTest)
#include "tst_transcribe_verb.moc"
