// Recognition time and real-time factor, hashing throughput of the model
// verifier, the peak memory of streaming a 600 MB download to disk, and the
// wait from the second press to the text for dictations of 5, 30 and 90 s,
// with the whole recording recognised at the press and with the recording
// recognised in chunks while it is captured.
#include "LocalHttpServer.h"
#include "speech/AccurateSpeechEngine.h"
#include "speech/AudioFile.h"
#include "speech/ChunkedTranscription.h"
#include "speech/SpeechDevice.h"
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

#include <QDirIterator>

#include <chrono>
#include <cstdio>
#include <thread>

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

// Read speech, clip after clip with a short breath between, cut to `seconds`:
// shaped like a dictation, with the pauses the chunking looks for.
std::vector<float> dictation(const QString &testdata, double seconds)
{
    QStringList clips;
    for (const char *folder : {"librivox", "hifitts"}) {
        QDirIterator it(testdata + QStringLiteral("/speech/") + QLatin1String(folder), {QStringLiteral("*.wav")}, QDir::Files);
        QStringList names;
        while (it.hasNext())
            names.append(it.next());
        names.sort();
        clips += names;
    }
    const size_t wanted = size_t(seconds * 16000);
    std::vector<float> samples;
    for (const QString &clip : clips) {
        if (samples.size() >= wanted)
            break;
        const DecodedAudio audio = AudioFile::decodeToMono16k(clip);
        samples.insert(samples.end(), audio.samples.begin(), audio.samples.end());
        samples.insert(samples.end(), 6400, 0.0f); // 0.4 s
    }
    samples.resize(wanted, 0.0f);
    return samples;
}

// Feeds the recording at the pace a microphone would (20 ms blocks), then
// presses: the time from the press to the joined text.
qint64 chunkedPressToText(AccurateSpeechEngine &engine, const std::vector<float> &recording, int *chunks)
{
    ChunkedTranscription chunker(ChunkedTranscription::recogniserFor(engine));
    const auto started = std::chrono::steady_clock::now();
    constexpr size_t kBlock = 320;
    for (size_t at = 0; at < recording.size(); at += kBlock) {
        std::this_thread::sleep_until(started + std::chrono::microseconds(qint64(at) * 1'000'000 / 16000));
        chunker.feed(recording.data() + at, std::min(kBlock, recording.size() - at));
    }
    std::this_thread::sleep_until(started + std::chrono::microseconds(qint64(recording.size()) * 1'000'000 / 16000));
    QElapsedTimer press;
    press.start();
    chunker.finish().waitForFinished();
    *chunks = chunker.chunksSubmitted();
    return press.elapsed();
}

void benchDictation(const QString &testdata, const QList<double> &lengths, const QString &modelName)
{
    const QString model = testdata + QStringLiteral("/models/") + modelName;
    const QList<ComputeDevice> devices = availableComputeDevices();
    for (const ComputeDevice &device : devices)
        std::printf("dictation: library device %s: %s%s\n", qPrintable(device.name), qPrintable(device.description),
            isSoftwareRasteriser(device) ? " (software rasteriser, not used)" : "");
    QList<SpeechDevicePreference> runs{SpeechDevicePreference::cpu};
    const SpeechDeviceChoice gpu = chooseSpeechDevice(devices, SpeechDevicePreference::gpu);
    if (gpu.useGpu)
        runs.prepend(SpeechDevicePreference::gpu);
    else
        std::printf("dictation: NO GPU FOUND (%s): GPU figures cannot be measured on this machine; CPU only\n",
            qPrintable(gpu.reason));
    std::printf("dictation: model %s, %d recognition threads of %d processors\n",
        qPrintable(QFileInfo(model).fileName()),
        AccurateSpeechEngine::threadCountFor(AccurateSpeechEngine::activeProcessorCount()),
        AccurateSpeechEngine::activeProcessorCount());
    std::fflush(stdout);

    for (const SpeechDevicePreference preference : runs) {
        AccurateSpeechEngine engine(preference);
        QElapsedTimer loadTimer;
        loadTimer.start();
        try {
            engine.load(model).waitForFinished();
        } catch (const Error &error) {
            std::printf("dictation: %s: %s\n", qPrintable(model), qPrintable(error.description()));
            continue;
        }
        const QString device = engine.deviceName();
        std::printf("dictation: [%s] model loaded%s in %lld ms\n", qPrintable(device),
            engine.usesGpu() ? " and warmed up" : "", loadTimer.elapsed());
        std::fflush(stdout);
        for (const double seconds : lengths) {
            const std::vector<float> recording = dictation(testdata, seconds);
            QElapsedTimer whole;
            whole.start();
            engine.transcribe(recording, 16000).waitForFinished();
            const qint64 before = whole.elapsed();
            std::printf("dictation: [%s] %3.0f s  whole recording at the press: %7lld ms from press to text\n",
                qPrintable(device), seconds, before);
            std::fflush(stdout);
            int chunks = 0;
            const qint64 after = chunkedPressToText(engine, recording, &chunks);
            std::printf("dictation: [%s] %3.0f s  chunked while recording (%d chunk%s): %7lld ms from press to text\n",
                qPrintable(device), seconds, chunks, chunks == 1 ? "" : "s", after);
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
        std::printf("Usage: bench_speech [--no-recognition] [--all] [--dictation-only] [--lengths=5,30,90] [--model=FILE]\n"
                    "Recognition needs ../shared/testdata (or DICTORA_SHARED_TESTDATA).\n"
                    "--dictation-only: only the press-to-text figures (minutes on a small CPU).\n"
                    "--model: a file in the test data's models folder for those figures\n"
                    "         (default for-tests-ggml-large-v3-turbo-q5_0.bin, the product's shape).\n");
        return 0;
    }
    setRecognizerLibraryLogging(false);
    const bool dictationOnly = arguments.contains(QStringLiteral("--dictation-only"));
    QTemporaryDir dir;
    if (!dictationOnly) {
        benchDownload(dir); // first, so the peak is not the models'
        std::fflush(stdout);
        benchHash(dir);
        std::fflush(stdout);
    }

    if (arguments.contains(QStringLiteral("--no-recognition")))
        return 0;
    QList<double> lengths{5, 30, 90};
    QString dictationModel = QStringLiteral("for-tests-ggml-large-v3-turbo-q5_0.bin");
    for (const QString &argument : arguments) {
        if (argument.startsWith(QLatin1String("--model=")))
            dictationModel = argument.section(QLatin1Char('='), 1);
        if (!argument.startsWith(QLatin1String("--lengths=")))
            continue;
        lengths.clear();
        for (const QString &value : argument.section(QLatin1Char('='), 1).split(QLatin1Char(','), Qt::SkipEmptyParts))
            lengths.append(value.toDouble());
    }
    QString testdata = qEnvironmentVariable("DICTORA_SHARED_TESTDATA");
    if (testdata.isEmpty())
        testdata = QStringLiteral(DICTORA_DEFAULT_TESTDATA);
    if (!QFileInfo(testdata + QStringLiteral("/models")).isDir()) {
        std::printf("recognition: skipped, no test data at %s\n", qPrintable(testdata));
        return 0;
    }
    if (!dictationOnly)
        benchRecognition(testdata, arguments.contains(QStringLiteral("--all")));
    benchDictation(testdata, lengths, dictationModel);
    return 0;
}
