// Microphone start-up and capture cost, against a private PulseAudio server
// whose microphone is a module-pipe-source fed in real time by this program:
//  - how long start() blocks, and the time from start() to the first buffer;
//  - how much of a sound that begins right after start() returns is missing
//    at the head of the recording (found by cross-correlation);
//  - CPU time of the capture thread per second of audio.
// Usage: bench_capture [RUNS]   (re-executes itself under with-pulse)
#include "support/ReRunUnder.h"
#include "audio/AudioCaptureService.h"
#include "audio/AudioConverter.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace dictora;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRate = 48000;
constexpr int kChunkFrames = 240; // 5 ms
constexpr double kMarkerSeconds = 0.3;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

bool pactl(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    return process.waitForFinished(10000) && process.exitCode() == 0;
}

// Writes the microphone's signal into the FIFO at the real-time pace: silence,
// or the marker once armed.
class Feeder {
public:
    Feeder(int fd, std::vector<float> marker) : m_fd(fd), m_marker(std::move(marker)) {}
    ~Feeder() { stop(); }

    void start() { m_thread = std::thread([this] { run(); }); }
    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    void armMarker() { m_arm = true; }
    void setNoise(bool on) { m_noise = on; }

private:
    void run()
    {
        std::vector<float> chunk(kChunkFrames);
        std::minstd_rand noise(7);
        std::uniform_real_distribution<float> uniform(-0.1f, 0.1f);
        qsizetype position = -1;
        auto next = Clock::now();
        while (!m_stop) {
            if (m_arm.exchange(false))
                position = 0;
            for (float &v : chunk) {
                if (position >= 0 && position < qsizetype(m_marker.size()))
                    v = m_marker[size_t(position++)];
                else
                    v = m_noise ? uniform(noise) : 0.0f;
            }
            // Non-blocking: when nobody reads, the FIFO fills and frames are dropped.
            [[maybe_unused]] const ssize_t written = ::write(m_fd, chunk.data(), chunk.size() * sizeof(float));
            next += std::chrono::microseconds(1'000'000 * kChunkFrames / kRate);
            std::this_thread::sleep_until(next);
        }
    }

    int m_fd;
    std::vector<float> m_marker;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_arm{false};
    std::atomic<bool> m_noise{false};
};

void drain(int fd)
{
    char buffer[65536];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
}

std::vector<float> to16k(const std::vector<float> &input)
{
    auto converter = AudioConverter::create({double(kRate), 1, false, true}, AudioFormat::dictationOutput());
    AudioBuffer in = AudioBuffer::fromChannels(kRate, {input});
    std::vector<float> out;
    AudioBuffer buffer(AudioFormat::dictationOutput(), quint32(input.size()));
    bool supplied = false;
    for (int round = 0; round < 16; ++round) {
        const auto status = converter->convert(buffer, [&](AudioConverter::InputStatus &s) -> const AudioBuffer * {
            if (supplied) {
                s = AudioConverter::InputStatus::endOfStream;
                return nullptr;
            }
            supplied = true;
            s = AudioConverter::InputStatus::haveData;
            return &in;
        });
        out.insert(out.end(), buffer.floatChannelData(0), buffer.floatChannelData(0) + buffer.frameLength());
        if (status == AudioConverter::OutputStatus::endOfStream && buffer.frameLength() == 0)
            break;
    }
    return out;
}

// Position of needle in haystack (may be negative: its head is missing).
qsizetype findMarker(const std::vector<float> &haystack, const std::vector<float> &needle, double *score)
{
    const qsizetype n = qsizetype(needle.size());
    double needleEnergy = 0;
    for (float v : needle)
        needleEnergy += double(v) * v;
    qsizetype best = 0;
    double bestScore = -2;
    for (qsizetype lag = -n / 2; lag < qsizetype(haystack.size()) - n / 2; ++lag) {
        double ab = 0, aa = 0;
        for (qsizetype i = 0; i < n; ++i) {
            const qsizetype j = lag + i;
            if (j < 0 || j >= qsizetype(haystack.size()))
                continue;
            ab += double(haystack[size_t(j)]) * needle[size_t(i)];
            aa += double(haystack[size_t(j)]) * haystack[size_t(j)];
        }
        const double c = aa > 0 ? ab / std::sqrt(aa * needleEnergy) : 0;
        if (c > bestScore) {
            bestScore = c;
            best = lag;
        }
    }
    *score = bestScore;
    return best;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2);
}

void report(const char *name, const std::vector<double> &values, const char *unit)
{
    std::printf("%-44s median %8.2f %s   worst %8.2f %s\n", name, median(values), unit,
                values.empty() ? 0.0 : *std::max_element(values.begin(), values.end()), unit);
}

bool waitForSamples(const AudioCaptureService &service, qsizetype count)
{
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (service.finalCapture().sampleCount() < count) {
        if (Clock::now() > deadline)
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(2);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return dictora::bench::reRunUnder(DICTORA_WITH_PULSE, argc, argv);
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;

    QTemporaryDir dir;
    const QString fifoPath = dir.filePath(QStringLiteral("mic.fifo"));
    if (!pactl({QStringLiteral("load-module"), QStringLiteral("module-pipe-source"), QStringLiteral("file=%1").arg(fifoPath),
                QStringLiteral("source_name=benchmic"), QStringLiteral("format=float32le"), QStringLiteral("rate=%1").arg(kRate),
                QStringLiteral("channels=1")})
        || !pactl({QStringLiteral("set-default-source"), QStringLiteral("benchmic")})) {
        std::fprintf(stderr, "bench_capture: could not create the pipe microphone\n");
        return 1;
    }
    const int fd = ::open(fifoPath.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        std::perror("bench_capture: open fifo");
        return 1;
    }

    std::vector<float> marker(size_t(kMarkerSeconds * kRate));
    std::mt19937 random(42);
    std::normal_distribution<float> gaussian(0.0f, 0.2f);
    for (float &v : marker)
        v = std::clamp(gaussian(random), -1.0f, 1.0f);
    const std::vector<float> marker16k = to16k(marker);

    Feeder feeder(fd, marker);
    feeder.start();

    AudioCaptureService service;
    std::vector<double> startCall, firstBuffer, missingHead, markerOnset, cpuPerSecond;
    int weak = 0;
    for (int run = 0; run < runs; ++run) {
        QThread::msleep(50);
        drain(fd); // nothing stale: the first frames are written after start() begins
        const qint64 t0 = nowNs();
        try {
            service.start({});
        } catch (const Error &error) {
            std::fprintf(stderr, "bench_capture: %s\n", qPrintable(error.description()));
            return 1;
        }
        const qint64 t1 = nowNs();
        feeder.armMarker();
        if (!waitForSamples(service, qsizetype(16000 * (kMarkerSeconds + 0.2)))) {
            std::fprintf(stderr, "bench_capture: no audio arrived\n");
            return 1;
        }
        const PulseCaptureEngine::Statistics statistics = service.engine().statistics();
        const CapturedAudioResult result = service.stop();
        double score = 0;
        const qsizetype lag = findMarker(result.samples, marker16k, &score);
        if (score < 0.9)
            ++weak;
        startCall.push_back(double(t1 - t0) / 1e6);
        firstBuffer.push_back(double(statistics.firstBufferNs - t0) / 1e6);
        missingHead.push_back(lag < 0 ? double(-lag) / 16.0 : 0.0);
        markerOnset.push_back(double(lag) / 16.0);
    }

    // Capture-thread CPU over a longer recording of continuous noise.
    feeder.setNoise(true);
    const double cpuSeconds = 10;
    service.start([](AudioMeterLevels) {});
    waitForSamples(service, qsizetype(16000 * cpuSeconds));
    const PulseCaptureEngine::Statistics statistics = service.engine().statistics();
    service.stop();
    const double audioSeconds = double(statistics.frames) / kRate;
    const double cpuMs = double(statistics.threadCpuNs - statistics.threadCpuAtStartNs) / 1e6;

    std::printf("capture benchmark: %d runs, pipe microphone %d Hz mono float, fragment 20 ms\n", runs, kRate);
    report("start() blocks for", startCall, "ms");
    report("start() to first captured buffer", firstBuffer, "ms");
    report("sound after start(): missing at the head", missingHead, "ms");
    report("sound after start(): onset in the recording", markerOnset, "ms");
    if (weak)
        std::printf("warning: %d runs matched the marker weakly (correlation < 0.9)\n", weak);
    std::printf("%-44s %8.2f ms CPU per second of audio (%.1f s, %lld buffers, %.2f%% of one core)\n",
                "capture thread", cpuMs / audioSeconds, audioSeconds, qlonglong(statistics.buffers),
                cpuMs / audioSeconds / 10.0);

    feeder.stop();
    ::close(fd);
    return 0;
}
