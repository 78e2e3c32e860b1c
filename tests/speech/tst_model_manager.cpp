#include "LocalHttpServer.h"
#include "core/RuntimeLog.h"
#include "speech/AccuracyModelContract.h"
#include "speech/AccuracyModelManager.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;
using dictora::test::HttpAnswer;
using dictora::test::LocalHttpServer;

namespace {

using Kind = AccuracyModelPhase::Kind;

const char *const kIntegrityText = "The model did not pass its exact SHA-256 check.";

QByteArray corrupted(QByteArray bytes)
{
    bytes[bytes.size() / 2] = char(bytes[bytes.size() / 2] ^ 0x5a);
    return bytes;
}

// Records every phase the manager publishes.
struct PhaseRecorder {
    explicit PhaseRecorder(AccuracyModelManager &manager)
        : phases{manager.phase()}
    {
        QObject::connect(&manager, &AccuracyModelManager::phaseChanged, &manager,
            [this](const AccuracyModelPhase &phase) { phases.append(phase); });
    }
    QList<Kind> kinds() const
    {
        QList<Kind> all;
        for (const auto &phase : phases)
            all.append(phase.kind());
        return all;
    }
    QStringList retryMessages() const
    {
        QStringList all;
        for (const auto &phase : phases)
            if (phase.kind() == Kind::retrying)
                all.append(phase.message());
        return all;
    }
    bool settled() const
    {
        return !phases.isEmpty() && (phases.last().kind() == Kind::ready || phases.last().kind() == Kind::needsAttention);
    }
    QList<AccuracyModelPhase> phases;
};

} // namespace

class ModelManagerTest : public QObject {
    Q_OBJECT

private:
    AccuracyModelManager::Options optionsFor(const QString &urlPath)
    {
        AccuracyModelManager::Options options;
        options.contract = m_contract;
        options.contract.url = m_server.url(urlPath);
        options.installedPath = m_dir->filePath(QStringLiteral("Models/") + m_contract.fileName);
        options.developmentCopyPath = m_dir->filePath(QStringLiteral("dev/") + m_contract.fileName);
        options.firstPause = std::chrono::milliseconds(5);
        options.maximumPause = std::chrono::milliseconds(40);
        return options;
    }

    QByteArray m_model;
    AccuracyModelContract m_contract;
    LocalHttpServer m_server;
    std::unique_ptr<QTemporaryDir> m_dir;

private Q_SLOTS:
    void initTestCase()
    {
        m_model = test::readFile(test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.bin"));
        QCOMPARE(m_model.size(), 575451);
        m_contract.fileName = QStringLiteral("ggml-stand-in.bin");
        m_contract.bytes = 575451;
        m_contract.sha256 = QStringLiteral("c486fb9f14a28b1c1dc252741a431646cc573450c900b9d9c406e10294aa01e6");
        QVERIFY(m_server.listen());
    }
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void preparation_data()
    {
        QTest::addColumn<QByteArray>("installed"); // "-": none
        QTest::addColumn<QByteArray>("development");
        QTest::addColumn<QList<HttpAnswer>>("answers");
        QTest::addColumn<QList<Kind>>("phases");
        QTest::addColumn<int>("requests");
        QTest::addColumn<QStringList>("retries");

        const QByteArray none = "-";
        const QList<HttpAnswer> good{HttpAnswer::ok(m_model)};
        const QList<Kind> fetched{Kind::checking, Kind::downloading, Kind::verifying};
        const QList<Kind> ready{Kind::loading, Kind::ready};
        const QList<Kind> refetch{Kind::retrying, Kind::checking, Kind::downloading};
        const QList<Kind> downloadPath = fetched + ready;

        QTest::newRow("installed and valid")
            << m_model << none << good << QList<Kind>{Kind::checking, Kind::verifying} + ready << 0 << QStringList();
        QTest::newRow("nothing installed: download") << none << none << good << downloadPath << 1 << QStringList();
        QTest::newRow("installed corrupt: replaced")
            << corrupted(m_model) << none << good
            << QList<Kind>{Kind::checking, Kind::verifying, Kind::downloading, Kind::verifying} + ready << 1 << QStringList();
        QTest::newRow("development copy")
            << none << m_model << good
            << QList<Kind>{Kind::checking, Kind::copyingBundledDevelopmentAsset, Kind::verifying} + ready << 0 << QStringList();
        QTest::newRow("development copy of the wrong size is ignored")
            << none << m_model.left(1000) << good << downloadPath << 1 << QStringList();

        HttpAnswer dropped = HttpAnswer::ok(m_model);
        dropped.dropAfter = 1000;
        QTest::newRow("404 then dropped then good")
            << none << none << QList<HttpAnswer>{HttpAnswer::failing(404), dropped, HttpAnswer::ok(m_model)}
            << QList<Kind>{Kind::checking, Kind::downloading} + refetch + refetch + QList{Kind::verifying} + ready << 3
            << QStringList{"The model server returned HTTP 404.", "The model download stopped at 1000 of 575451 bytes."};

        QTest::newRow("bad hash twice, then good")
            << none << none
            << QList<HttpAnswer>{HttpAnswer::ok(corrupted(m_model)), HttpAnswer::ok(corrupted(m_model)), HttpAnswer::ok(m_model)}
            << fetched + refetch + QList{Kind::verifying} + refetch + QList{Kind::verifying} + ready << 3
            << QStringList{kIntegrityText, kIntegrityText};

        const HttpAnswer bad = HttpAnswer::ok(corrupted(m_model));
        QTest::newRow("bad hash three times: needs attention")
            << none << none << QList<HttpAnswer>{bad}
            << fetched + refetch + QList{Kind::verifying} + refetch + QList{Kind::verifying, Kind::needsAttention} << 3
            << QStringList{kIntegrityText, kIntegrityText};

        QTest::newRow("a network error in between resets the count")
            << none << none << QList<HttpAnswer>{bad, bad, dropped, bad, bad, bad}
            << QList<Kind>{} << 6
            << QStringList{kIntegrityText, kIntegrityText, "The model download stopped at 1000 of 575451 bytes.",
                   kIntegrityText, kIntegrityText};
    }
    void preparation()
    {
        QFETCH(QByteArray, installed);
        QFETCH(QByteArray, development);
        QFETCH(QList<HttpAnswer>, answers);
        QFETCH(QList<Kind>, phases);
        QFETCH(int, requests);
        QFETCH(QStringList, retries);

        const QString path = QStringLiteral("/prep/%1").arg(QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-'));
        m_server.script(path, answers);
        const auto options = optionsFor(path);
        if (installed != "-")
            QVERIFY(test::writeFile(options.installedPath, installed));
        if (development != "-")
            QVERIFY(test::writeFile(options.developmentCopyPath, development));

        RuntimeLog log(m_dir->filePath(QStringLiteral("runtime.log")));
        AccuracyModelManager manager(options, &log);
        PhaseRecorder recorder(manager);
        QCOMPARE(manager.phase().kind(), Kind::checking);
        manager.startAutomatically();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.settled(), 30000);

        if (!phases.isEmpty())
            QCOMPARE(recorder.kinds(), phases);
        QCOMPARE(recorder.retryMessages(), retries);
        QCOMPARE(m_server.requestCount(path), requests);
        QVERIFY(!manager.isPreparing());
        QVERIFY(!QFileInfo::exists(manager.partialPath()));
        if (recorder.phases.last().isReady()) {
            QCOMPARE(test::readFile(options.installedPath), m_model);
            QCOMPARE(manager.progress(), requests > 0 || development != "-" ? 1.0 : 0.0);
            if (requests > 0)
                QCOMPARE(manager.downloadedBytes(), qint64(m_model.size()));
        } else {
            QCOMPARE(recorder.phases.last(),
                AccuracyModelPhase::needsAttention(QString::fromUtf8(AccuracyModelManager::kNeedsAttentionMessage)));
            QCOMPARE(recorder.phases.last().statusText(),
                QStringLiteral("Download paused: The downloaded file failed verification three times. "
                               "Check your connection, then retry."));
            QVERIFY(!QFileInfo::exists(options.installedPath));
        }
    }

    void unloadableModelIsRetried()
    {
        // Passes size and hash but is not a model: the engine's error is retried.
        const QByteArray notAModel = QByteArray("not a model ").repeated(1000);
        const QString path = QStringLiteral("/unloadable");
        m_server.script(path, {HttpAnswer::ok(notAModel)});
        auto options = optionsFor(path);
        options.contract.bytes = notAModel.size();
        options.contract.sha256 = QString::fromLatin1(QCryptographicHash::hash(notAModel, QCryptographicHash::Sha256).toHex());
        AccuracyModelManager manager(options, nullptr);
        PhaseRecorder recorder(manager);
        manager.startAutomatically();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.retryMessages().size() >= 2, 30000);
        QCOMPARE(recorder.retryMessages().first(),
            QStringLiteral("The accuracy model could not be loaded. The app will repair it automatically."));
        QVERIFY(manager.isPreparing());
        QCOMPARE(m_server.requestCount(path), 1); // the installed copy is valid: not fetched again
    }

    // The model arrives another way (the install verb) while a transfer
    // hangs: the transfer is closed, its partial file goes, the copy is used.
    void installedFromOutsideDuringDownload()
    {
        const QString path = QStringLiteral("/outside");
        HttpAnswer hangs;
        hangs.silent = true;
        m_server.script(path, {hangs});
        const auto options = optionsFor(path);
        AccuracyModelManager manager(options, nullptr);
        manager.startAutomatically();
        QTRY_VERIFY_WITH_TIMEOUT(m_server.openConnections() == 1 && manager.phase().kind() == Kind::downloading, 30000);
        QVERIFY(test::writeFile(options.installedPath, m_model));
        manager.adoptInstalledModel();
        QTRY_VERIFY_WITH_TIMEOUT(manager.phase().isReady(), 30000);
        QTRY_COMPARE(m_server.openConnections(), 0);
        QCOMPARE(m_server.requestCount(path), 1);
        QVERIFY(!QFileInfo::exists(manager.partialPath()));
        QCOMPARE(test::readFile(options.installedPath), m_model);
    }

    void retryManuallyOnlyWhenIdle()
    {
        const QString path = QStringLiteral("/manual");
        const HttpAnswer bad = HttpAnswer::ok(corrupted(m_model));
        m_server.script(path, {bad, bad, bad, HttpAnswer::ok(m_model)});
        AccuracyModelManager manager(optionsFor(path), nullptr);
        manager.startAutomatically();
        manager.retryManually(); // a preparation runs: ignored
        manager.startAutomatically();
        QTRY_COMPARE_WITH_TIMEOUT(manager.phase().kind(), Kind::needsAttention, 30000);
        QCOMPARE(m_server.requestCount(path), 3);
        manager.retryManually();
        QVERIFY(manager.isPreparing());
        QTRY_VERIFY_WITH_TIMEOUT(manager.phase().isReady(), 30000);
        QCOMPARE(m_server.requestCount(path), 4);

        manager.startAutomatically(); // ready: nothing to do
        QVERIFY(!manager.isPreparing());
        manager.retryManually(); // idle: verifies and loads again without fetching
        QVERIFY(manager.isPreparing());
        QTRY_VERIFY_WITH_TIMEOUT(manager.phase().isReady(), 30000);
        QCOMPARE(m_server.requestCount(path), 4);
    }

    void contractFile_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("problem"); // empty: accepted
        const QJsonObject valid{{"fileName", "m.bin"}, {"bytes", 575451},
            {"sha256", "c486fb9f14a28b1c1dc252741a431646cc573450c900b9d9c406e10294aa01e6"},
            {"url", "http://127.0.0.1:9/m.bin"}};
        const auto with = [&valid](const char *key, const QJsonValue &value) {
            QJsonObject changed = valid;
            if (value.isUndefined())
                changed.remove(QLatin1String(key));
            else
                changed.insert(QLatin1String(key), value);
            return QJsonDocument(changed).toJson();
        };
        QTest::newRow("valid") << QJsonDocument(valid).toJson() << QString();
        QTest::newRow("missing file") << QByteArray("-") << "contract.json";
        QTest::newRow("not JSON") << QByteArray("fileName=m.bin") << "not JSON";
        QTest::newRow("array") << QByteArray("[]") << "expected a JSON object";
        QTest::newRow("missing name") << with("fileName", QJsonValue::Undefined) << "\"fileName\"";
        QTest::newRow("name with folder") << with("fileName", "../m.bin") << "\"fileName\"";
        QTest::newRow("bytes zero") << with("bytes", 0) << "\"bytes\"";
        QTest::newRow("hash upper case")
            << with("sha256", "C486FB9F14A28B1C1DC252741A431646CC573450C900B9D9C406E10294AA01E6") << "\"sha256\"";
        QTest::newRow("ftp url") << with("url", "ftp://127.0.0.1/m.bin") << "\"url\"";
    }
    void contractFile()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, problem);
        const QString path = m_dir->filePath(QStringLiteral("contract.json"));
        if (json != "-")
            QVERIFY(test::writeFile(path, json));
        qputenv(AccuracyModelContract::kEnvironmentVariable, path.toUtf8());
        const auto cleanup = qScopeGuard([] { qunsetenv(AccuracyModelContract::kEnvironmentVariable); });
        try {
            const AccuracyModelContract contract = AccuracyModelContract::current();
            QVERIFY2(problem.isEmpty(), "accepted a malformed contract");
            QCOMPARE(contract.fileName, QStringLiteral("m.bin"));
            QCOMPARE(contract.bytes, qint64(575451));
            QCOMPARE(contract.url, QUrl(QStringLiteral("http://127.0.0.1:9/m.bin")));
            QCOMPARE(contract.partialFileName(), QStringLiteral("m.bin.partial"));
            AccuracyModelManager manager; // takes the environment's contract
            QCOMPARE(manager.contract(), contract);
        } catch (const AccuracyModelContractError &error) {
            QVERIFY2(!problem.isEmpty(), qPrintable(error.description()));
            QVERIFY2(error.description().contains(path), qPrintable(error.description()));
            QVERIFY2(error.description().contains(problem), qPrintable(error.description()));
            QVERIFY_THROWS_EXCEPTION(AccuracyModelContractError, AccuracyModelManager());
        }
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(ModelManagerTest)
#include "tst_model_manager.moc"
