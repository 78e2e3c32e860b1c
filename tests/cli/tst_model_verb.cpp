#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

using Run = dictora::test::ProgramRun;

namespace {

const QString kModelName = QStringLiteral("stand-in.bin");
constexpr qint64 kModelBytes = 575451;
const char *const kModelHash = "c486fb9f14a28b1c1dc252741a431646cc573450c900b9d9c406e10294aa01e6";

} // namespace

// `dictora model install|status|path` as a user runs them: the real program,
// an isolated home, a stand-in contract for one of the small test models.
class ModelVerbTest : public QObject {
    Q_OBJECT

private:
    QString installed() const { return m_home->dataHome() + QStringLiteral("/Dictora/Models/") + kModelName; }

    Run dictora(const QStringList &arguments)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DICTORA_MODEL_CONTRACT"), m_contract);
        return dictora::test::runProgram(QStringLiteral(DICTORA_EXECUTABLE), arguments, {}, environment);
    }

    std::unique_ptr<dictora::test::IsolatedHome> m_home;
    QString m_contract;
    QByteArray m_model;

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<dictora::test::IsolatedHome>();
        m_model = dictora::test::readFile(dictora::test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.bin"));
        QCOMPARE(m_model.size(), kModelBytes);
        m_contract = m_home->path() + QStringLiteral("/contract.json");
        const QJsonObject contract{{"fileName", kModelName}, {"bytes", kModelBytes}, {"sha256", kModelHash},
            {"url", "http://127.0.0.1:9/stand-in.bin"}};
        QVERIFY(dictora::test::writeFile(m_contract, QJsonDocument(contract).toJson()));
    }

    // A refused file leaves the model already in place byte for byte, and no
    // stray temporary file beside it. (An accepted one is tst_e2e_model_install's.)
    void refusedInstall_data()
    {
        QTest::addColumn<QString>("fileKind");
        QTest::addColumn<QString>("reason");
        QTest::newRow("one byte short") << "short" << "is 575450 bytes; the model stand-in.bin is exactly 575451 bytes";
        QTest::newRow("one byte changed") << "changed" << "has SHA-256";
        QTest::newRow("no such file") << "missing" << "does not exist";
        QTest::newRow("a folder") << "folder" << "is not a regular file";
    }
    void refusedInstall()
    {
        QFETCH(QString, fileKind);
        QFETCH(QString, reason);

        const QByteArray previous("an earlier, damaged model");
        QVERIFY(dictora::test::writeFile(installed(), previous));

        QByteArray bytes = m_model;
        if (fileKind == QLatin1String("short"))
            bytes.chop(1);
        if (fileKind == QLatin1String("changed"))
            bytes[bytes.size() / 2] = char(bytes.at(bytes.size() / 2) ^ 0x01);
        QString file = m_home->path() + QStringLiteral("/offered.bin");
        if (fileKind == QLatin1String("folder"))
            QVERIFY(QDir().mkpath(file));
        else if (fileKind != QLatin1String("missing"))
            QVERIFY(dictora::test::writeFile(file, bytes));

        const Run run = dictora({QStringLiteral("model"), QStringLiteral("install"), file});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(reason), qPrintable(run.err));
        QVERIFY2(run.err.contains(QStringLiteral("Nothing was installed.")), qPrintable(run.err));
        QCOMPARE(dictora::test::readFile(installed()), previous);
        const QStringList beside = QDir(QFileInfo(installed()).path()).entryList(QDir::Files);
        QCOMPARE(beside, QStringList{kModelName});
    }

    // The voice-activity model goes in the same way, told apart by its size.
    void installsTheVoiceActivityModel()
    {
        const QString file = dictora::test::sharedTestData() + QStringLiteral("/models/for-tests-silero-v6.2.0-ggml.bin");
        const Run run = dictora({QStringLiteral("model"), QStringLiteral("install"), file});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        const QString target = m_home->dataHome() + QStringLiteral("/Dictora/Models/ggml-silero-v6.2.0.bin");
        QCOMPARE(dictora::test::readFile(target), dictora::test::readFile(file));
        QVERIFY(!QFileInfo::exists(installed()));
        const Run status = dictora({QStringLiteral("model"), QStringLiteral("status")});
        QVERIFY2(status.out.contains(QStringLiteral("ggml-silero-v6.2.0.bin\npath:     %1\nsize:     885098 bytes").arg(target)),
            qPrintable(status.out));
    }

    // (An installed, verified model: tst_e2e_model_install's.)
    void statusAndPath_data()
    {
        QTest::addColumn<QString>("content");
        QTest::addColumn<QString>("expected");
        QTest::newRow("not installed") << "none" << "verified: no";
        QTest::newRow("damaged") << "damaged" << "verified: no, it does not match";
    }

    void statusAndPath()
    {
        QFETCH(QString, content);
        QFETCH(QString, expected);
        if (content == QLatin1String("damaged"))
            QVERIFY(dictora::test::writeFile(installed(), QByteArray(int(kModelBytes), 'x')));

        const Run status = dictora({QStringLiteral("model"), QStringLiteral("status")});
        QCOMPARE(status.exitCode, 0);
        QVERIFY2(status.out.contains(expected), qPrintable(status.out));
        QVERIFY2(status.out.contains(QStringLiteral("running:  Dictora is not running")), qPrintable(status.out));

        const Run path = dictora({QStringLiteral("model"), QStringLiteral("path")});
        QCOMPARE(path.exitCode, 0);
        QCOMPARE(path.out, installed() + QLatin1Char('\n'));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no action") << QStringList{"model"};
        QTest::newRow("unknown action") << QStringList{"model", "remove"};
        QTest::newRow("install without a file") << QStringList{"model", "install"};
        QTest::newRow("two files") << QStringList{"model", "install", "a", "b"};
    }

    void usageErrors()
    {
        QFETCH(QStringList, arguments);
        const Run run = dictora(arguments);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.contains(QStringLiteral("dictora model --help")), qPrintable(run.err));
        QVERIFY(!QFile::exists(installed()));
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(ModelVerbTest)
#include "tst_model_verb.moc"
