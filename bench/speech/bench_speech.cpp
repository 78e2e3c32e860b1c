// Recognition time and real-time factor, hashing throughput of the model
// verifier, and the peak memory of streaming a 600 MB download to disk.
#include "LocalHttpServer.h"
#include "speech/AccurateSpeechEngine.h"
#include "speech/AudioFile.h"
#include "speech/ModelVerifier.h"
#include "speech/RecognizerLogging.h"
#include "speech/StreamingModelDownloader.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>

using namespace dictora;

namespace {

qint64 statusKilobytes(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qsizetype(qstrlen(field))).trimmed().split(' ').first().toLongLong();
    return -1;
}

// Lets VmHWM measure one phase only (Linux: "5" resets the peak RSS).
void resetPeakMemory()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
}

void benchDownload(const QTemporaryDir &dir)
{
    constexpr qint64 kBytes = 600LL * 1000 * 1000;
    const QString body = dir.filePath(QStringLiteral("served.bin"));
    {
        QFile file(body);
        if (!file.open(QIODevice::WriteOnly) || !file.resize(kBytes)) { // sparse: costs no disk
            std::printf("download: cannot create %s\n", qPrintable(body));
            return;
        }
    }
    test::LocalHttpServer server;
    if (!server.listen()) {
        std::printf("download: cannot listen on 127.0.0.1\n");
        return;
    }
    test::HttpAnswer answer;
    answer.bodyFile = body;
    server.script(QStringLiteral("/model.bin"), {answer});

    const QString partial = dir.filePath(QStringLiteral("model.bin.partial"));
    const qint64 before = statusKilobytes("VmRSS:");
    resetPeakMemory();
    QElapsedTimer timer;
    timer.start();
    QFuture<void> future;
    {
        StreamingModelDownloader downloader(partial, kBytes, {});
        future = downloader.download(server.url(QStringLiteral("/model.bin")));
        while (!future.isFinished())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    const qint64 ms = timer.elapsed();
    const qint64 peak = statusKilobytes("VmHWM:");
    QString outcome = QStringLiteral("ok");
    try {
        future.waitForFinished();
    } catch (const Error &error) {
        outcome = error.description();
    }
    std::printf("download: %lld MB from 127.0.0.1 in %lld ms (%.0f MB/s), %s, file %lld bytes\n", kBytes / 1000000,
        ms, kBytes / 1e6 / (ms / 1000.0), qPrintable(outcome), QFileInfo(partial).size());
    std::printf("download: RSS before %.1f MiB, peak during download (VmHWM) %.1f MiB, growth %.1f MiB\n",
        before / 1024.0, peak / 1024.0, (peak - before) / 1024.0);
    QFile::remove(partial);
}

void benchHash(const QTemporaryDir &dir)
{
    constexpr qint64 kBytes = 256LL * 1024 * 1024;
    const QString path = dir.filePath(QStringLiteral("hashed.bin"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return;
        QByteArray block(4 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator generator(7);
        generator.fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
        for (qint64 written = 0; written < kBytes; written += block.size())
            file.write(block);
    }
    ModelVerifier::sha256Hex(path); // warm the page cache: measure hashing, not the disk
    QElapsedTimer timer;
    timer.start();
    const QString hash = ModelVerifier::sha256Hex(path);
    const qint64 ms = std::max<qint64>(1, timer.elapsed());
    std::printf("sha256: %lld MiB in %lld ms = %.0f MB/s (%d MiB chunks); the product model would take about %.1f s\n",
        kBytes >> 20, ms, kBytes / 1e6 / (ms / 1000.0), int(ModelVerifier::kHashChunkBytes >> 20),
        574041195 / (kBytes / (ms / 1000.0)));
    QFile::remove(path);
}

// The encoder always sees a 30 s window, and for the large model it is nearly
// the whole cost: its 5 s clip takes about what the 11 s one does, several
// minutes on two cores, so that clip is only run with --all.
void benchRecognition(const QString &testdata, bool all)
{
    const DecodedAudio jfk = AudioFile::decodeToMono16k(testdata + QStringLiteral("/speech/jfk.wav"));
    const QList<std::pair<QString, QList<float>>> clips{
        {QStringLiteral("jfk.wav 11.0 s"), jfk.samples},
        {QStringLiteral("jfk.wav first 5.0 s"), jfk.samples.first(5 * 16000)},
    };
    const int threads = AccurateSpeechEngine::threadCountFor(AccurateSpeechEngine::activeProcessorCount());
    std::printf("recognition: %d processors available, %d recognition threads\n",
        AccurateSpeechEngine::activeProcessorCount(), threads);
    for (const char *model : {"for-tests-ggml-tiny.bin", "for-tests-ggml-large.bin"}) {
        AccurateSpeechEngine engine;
        QElapsedTimer loadTimer;
        loadTimer.start();
        try {
            engine.load(testdata + QStringLiteral("/models/") + QLatin1String(model)).waitForFinished();
        } catch (const Error &error) {
            std::printf("recognition: %s: %s\n", model, qPrintable(error.description()));
            continue;
        }
        std::printf("recognition: %s loaded in %lld ms\n", model, loadTimer.elapsed());
        for (const auto &[name, samples] : clips) {
            if (!all && &samples != &clips.first().second && QLatin1String(model).contains(QLatin1String("large")))
                continue;
            try {
                const AccurateSpeechResult result = engine.transcribe(samples, 16000).result();
                const double seconds = samples.size() / 16000.0;
                std::printf("recognition: %-26s %-20s %7lld ms  real-time factor %.2f\n", model, qPrintable(name),
                    result.durationMilliseconds, result.durationMilliseconds / (seconds * 1000.0));
            } catch (const Error &error) {
                std::printf("recognition: %s %s: %s\n", model, qPrintable(name), qPrintable(error.description()));
            }
            std::fflush(stdout);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.contains(QStringLiteral("--help"))) {
        std::printf("Usage: bench_speech [--no-recognition] [--all]\n"
                    "Recognition needs ../shared/testdata (or DICTORA_SHARED_TESTDATA).\n");
        return 0;
    }
    setRecognizerLibraryLogging(false);
    QTemporaryDir dir;
    benchDownload(dir); // first, so the peak is not the models'
    std::fflush(stdout);
    benchHash(dir);
    std::fflush(stdout);

    if (arguments.contains(QStringLiteral("--no-recognition")))
        return 0;
    QString testdata = qEnvironmentVariable("DICTORA_SHARED_TESTDATA");
    if (testdata.isEmpty())
        testdata = QStringLiteral(DICTORA_DEFAULT_TESTDATA);
    if (!QFileInfo(testdata + QStringLiteral("/models")).isDir()) {
        std::printf("recognition: skipped, no test data at %s\n", qPrintable(testdata));
        return 0;
    }
    benchRecognition(testdata, arguments.contains(QStringLiteral("--all")));
    return 0;
}
