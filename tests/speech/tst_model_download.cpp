#include "LocalHttpServer.h"
#include "speech/AccuracyModelError.h"
#include "speech/StreamingModelDownloader.h"
#include "support/TestSupport.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QtTest>

#include <optional>

using namespace dictora;
using dictora::test::HttpAnswer;
using dictora::test::LocalHttpServer;

namespace {

constexpr qint64 kProductBytes = 574041195;

QByteArray patternBytes(qint64 size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + i / 251) & 0xff);
    return bytes;
}

struct Outcome {
    bool succeeded = false;
    QString description;
    std::optional<AccuracyModelError::Case> modelError;
};

// Downloads while running this thread's events (the servers live here).
Outcome fetch(const QUrl &url, const QString &partial, qint64 contractBytes, StreamingModelDownloader::Progress progress,
    StreamingModelDownloader::TimeLimits limits = {})
{
    StreamingModelDownloader downloader(partial, contractBytes, std::move(progress), limits);
    QFuture<void> future = downloader.download(url);
    QDeadlineTimer deadline(30000);
    while (!future.isFinished() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    Outcome outcome;
    if (!future.isFinished()) {
        outcome.description = QStringLiteral("still running after 30 s");
        return outcome;
    }
    try {
        future.waitForFinished();
        outcome.succeeded = true;
    } catch (const AccuracyModelError &error) {
        outcome.description = error.description();
        outcome.modelError = error.errorCase();
    } catch (const Error &error) {
        outcome.description = error.description();
    }
    return outcome;
}

QByteArray fileContent(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

struct ProgressLog {
    QMutex mutex;
    QList<QPair<qint64, qint64>> calls;
    StreamingModelDownloader::Progress callback()
    {
        return [this](qint64 received, qint64 expected) {
            QMutexLocker lock(&mutex);
            calls.append({received, expected});
        };
    }
};

} // namespace

class ModelDownloadTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.listen()); QVERIFY(m_otherHost.listen()); }

    void outcomes_data()
    {
        QTest::addColumn<QList<HttpAnswer>>("answers");
        QTest::addColumn<qint64>("contractBytes");
        QTest::addColumn<QString>("error");           // empty: success
        QTest::addColumn<QByteArray>("expectedFile"); // what the partial file holds afterwards

        const QByteArray body = patternBytes(300000);
        QTest::newRow("body with length") << QList<HttpAnswer>{HttpAnswer::ok(body)} << qint64(1) << QString() << body;

        HttpAnswer noLength = HttpAnswer::ok(body);
        noLength.sendLength = false;
        QTest::newRow("no length, contract size met") << QList<HttpAnswer>{noLength} << qint64(body.size()) << QString() << body;
        QTest::newRow("no length is held to the contract size")
            << QList<HttpAnswer>{noLength} << kProductBytes
            << QStringLiteral("The model download stopped at 300000 of 574041195 bytes.") << body;

        HttpAnswer dropped = HttpAnswer::ok(body);
        dropped.claimedLength = kProductBytes;
        dropped.dropAfter = 1000;
        QTest::newRow("connection dropped after 1000 bytes")
            << QList<HttpAnswer>{dropped} << kProductBytes
            << QStringLiteral("The model download stopped at 1000 of 574041195 bytes.") << body.left(1000);

        // The file holds none of the redirect page, and progress counts the final answer's length.
        const QByteArray moved = patternBytes(70000);
        m_otherHost.script(QStringLiteral("/storage/model.bin"), {HttpAnswer::ok(moved)});
        QTest::newRow("redirect to another origin")
            << QList<HttpAnswer>{HttpAnswer::redirect(m_otherHost.url(QStringLiteral("/storage/model.bin")))} << kProductBytes
            << QString() << moved;

        QTest::newRow("404 writes nothing") << QList<HttpAnswer>{HttpAnswer::failing(404)} << kProductBytes
                                            << QStringLiteral("The model server returned HTTP 404.") << QByteArray();
        QTest::newRow("empty body with length 0 held to contract")
            << QList<HttpAnswer>{HttpAnswer::ok(QByteArray())} << qint64(10)
            << QStringLiteral("The model download stopped at 0 of 10 bytes.") << QByteArray();
    }
    void outcomes()
    {
        QFETCH(QList<HttpAnswer>, answers);
        QFETCH(qint64, contractBytes);
        QFETCH(QString, error);
        QFETCH(QByteArray, expectedFile);

        const QString path = QStringLiteral("/%1").arg(QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-'));
        m_server.script(path, answers);
        QTemporaryDir dir;
        const QString partial = dir.filePath(QStringLiteral("model.bin.partial"));
        ProgressLog progress;
        const Outcome outcome = fetch(m_server.url(path), partial, contractBytes, progress.callback());
        QCOMPARE(outcome.description, error);
        QCOMPARE(outcome.succeeded, error.isEmpty());
        QCOMPARE(fileContent(partial), expectedFile);

        // Progress counts what is on disk, never goes back, and ends there.
        QMutexLocker lock(&progress.mutex);
        qint64 previous = 0;
        for (const auto &[received, expected] : progress.calls) {
            QVERIFY(received > previous);
            QVERIFY(expected >= 1);
            previous = received;
        }
        QCOMPARE(previous, qint64(expectedFile.size()));
        if (outcome.succeeded)
            QCOMPARE(progress.calls.last(), qMakePair(previous, previous));
    }

    void transportFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("connection refused") << "refused";
        QTest::newRow("server never answers") << "silent";
        QTest::newRow("cannot write the file") << "unwritable";
        if (QFileInfo(QStringLiteral("/dev/full")).exists())
            QTest::newRow("disk full") << "full";
    }
    void transportFailures()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        QString partial = dir.filePath(QStringLiteral("model.bin.partial"));
        QUrl url;
        StreamingModelDownloader::TimeLimits limits;
        if (kind == QLatin1String("refused")) {
            QTcpServer closed;
            QVERIFY(closed.listen(QHostAddress::LocalHost));
            url = QUrl(QStringLiteral("http://127.0.0.1:%1/model.bin").arg(closed.serverPort()));
        } else if (kind == QLatin1String("silent")) {
            HttpAnswer silent;
            silent.silent = true;
            m_server.script(QStringLiteral("/silent"), {silent});
            url = m_server.url(QStringLiteral("/silent"));
            limits.request = std::chrono::milliseconds(300);
        } else if (kind == QLatin1String("full")) {
            m_server.script(QStringLiteral("/full"), {HttpAnswer::ok("abc")});
            url = m_server.url(QStringLiteral("/full"));
            partial = QStringLiteral("/dev/full"); // every write fails with "no space left"
        } else {
            m_server.script(QStringLiteral("/unwritable"), {HttpAnswer::ok("abc")});
            url = m_server.url(QStringLiteral("/unwritable"));
            partial = dir.filePath(QStringLiteral("no-such-folder/model.bin.partial"));
        }
        const Outcome outcome = fetch(url, partial, 3, {}, limits);
        QVERIFY(!outcome.succeeded);
        QVERIFY(!outcome.modelError); // transport and disk errors are not retried as integrity failures
        QVERIFY(!outcome.description.isEmpty());
        if (kind == QLatin1String("full") || kind == QLatin1String("unwritable"))
            QVERIFY2(outcome.description.contains(partial), qPrintable(outcome.description));
    }

    void destroyingTheDownloaderFinishesTheFuture()
    {
        HttpAnswer silent;
        silent.silent = true;
        m_server.script(QStringLiteral("/hang"), {silent});
        QTemporaryDir dir;
        QFuture<void> future;
        {
            StreamingModelDownloader downloader(dir.filePath(QStringLiteral("p")), 10, {});
            future = downloader.download(m_server.url(QStringLiteral("/hang")));
            QTRY_COMPARE(m_server.requestCount(QStringLiteral("/hang")), 1);
        }
        QVERIFY(future.isFinished());
        QVERIFY_THROWS_EXCEPTION(Error, future.waitForFinished());
    }

private:
    LocalHttpServer m_server;
    LocalHttpServer m_otherHost;
};

QTEST_GUILESS_MAIN(ModelDownloadTest)
#include "tst_model_download.moc"
