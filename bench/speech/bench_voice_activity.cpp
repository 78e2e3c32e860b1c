// The voice-activity detector on real speech joined with generated noise:
// its precision and recall over speech frames, the seconds sent to the
// recogniser against the seconds recorded, and the detector's own cost per
// minute of audio. Then the speech path as a dictation runs it (the chunker
// fed as captured), on this machine's CPU (or DICTORA_SPEECH_DEVICE) with the turbo-shaped test model,
// whose encoder costs what the real one does: the wait from the stop press to
// the text for 5 s of speech inside a 20 s recording, with the voice gate off
// (the whole recording recognised) and on (speech only); and, over a few
// runs, how soon a cancelled recognition lets go and the queue is free again.
// DICTORA_BENCH_RUNS sets the runs per figure (default 2, the abort at least 5).
#include "speech/AccurateSpeechEngine.h"
#include "speech/ChunkedTranscription.h"
#include "speech/RecognizerLogging.h"
#include "speech/SpeechDevice.h"
#include "support/SpeechScenes.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>

using namespace dictora;
using namespace dictora::test;

namespace {

QString testData()
{
    const QString set = qEnvironmentVariable("DICTORA_TESTDATA");
    return set.isEmpty() ? QStringLiteral(DICTORA_DEFAULT_TESTDATA) : set;
}

const char *nameOf(Noise noise)
{
    switch (noise) {
    case Noise::silence: return "room silence";
    case Noise::white: return "white noise";
    case Noise::pink: return "pink noise";
    case Noise::clicks: return "keyboard clicks";
    case Noise::tone: return "440 Hz hum";
    }
    return "";
}

struct Streamed {
    double seconds = 0;
    qint64 sent = 0;
};

// The speech path as a dictation runs it: 100 ms buffers fed as captured
// (here without the wait), then the stop; timed from finish() to the text.
// With the detector's model the chunker sends speech only, as the gate does.
Streamed afterStop(AccurateSpeechEngine &engine, const std::vector<float> &recording, const QString &detectorModel)
{
    auto recogniser = ChunkedTranscription::recogniserFor(engine);
    const auto stream = detectorModel.isEmpty() ? std::make_unique<ChunkedTranscription>(recogniser)
                                                : std::make_unique<ChunkedTranscription>(recogniser, detectorModel);
    for (size_t at = 0; at < recording.size(); at += 1600)
        stream->feed(recording.data() + at, std::min<size_t>(1600, recording.size() - at));
    QElapsedTimer timer;
    timer.start();
    stream->finish().waitForFinished();
    return {double(timer.nsecsElapsed()) / 1e9, stream->samplesSent()};
}

void report(const char *what, qint64 sentSamples, std::vector<double> seconds)
{
    std::sort(seconds.begin(), seconds.end());
    const std::string label = sentSamples > 0 ? QStringLiteral("%1, %2 s sent)").arg(QLatin1String(what))
                                                    .arg(double(sentSamples) / 16000, 0, 'f', 1).toStdString()
                                              : std::string(what);
    std::printf("%-44s median %.3f s  min %.3f  max %.3f\n", label.c_str(), seconds[seconds.size() / 2],
        seconds.front(), seconds.back());
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    setRecognizerLibraryLogging(false);
    const QString data = testData();
    const QString vadModel = data + QStringLiteral("/models/for-tests-silero-v6.2.0-ggml.bin");
    const auto detector = VoiceActivityDetector::open(vadModel);
    if (!detector) {
        std::printf("voice activity: no model at %s\n", qPrintable(vadModel));
        return 1;
    }
    const auto clip = [&](const char *name) { return speechOf(data + QStringLiteral("/speech/") + name); };
    const std::vector<std::vector<float>> clips{clip("jfk.wav"), clip("librispeech/1089-134686-0000.wav"),
        clip("librivox/sense_and_sensibility_01_austen_64kb-0920.wav"), clip("cards/goforward.wav")};

    std::printf("voice activity, real speech (%zu clips) with 3 s gaps and 2 s edges of noise:\n", clips.size());
    std::printf("  %-16s %9s %7s %10s %8s\n", "background", "precision", "recall", "recorded s", "sent s");
    for (const auto &[noiseKind, level] : std::vector<std::pair<Noise, float>>{{Noise::silence, 0.0f},
             {Noise::white, 0.01f}, {Noise::pink, 0.02f}, {Noise::clicks, 0.3f}, {Noise::tone, 0.02f}}) {
        const Scene scene = joinScene(clips, noiseKind, level, 3.0, 2.0);
        const std::vector<SpeechSpan> spans =
            speechSpans(detector->probabilities(scene.samples), qsizetype(scene.samples.size()));
        const FrameScore score = scoreFrames(scene, spans);
        std::printf("  %-16s %9.3f %7.3f %10.1f %8.1f\n", nameOf(noiseKind), score.precision, score.recall,
            scene.seconds(), double(speechOnly(scene.samples, spans).size()) / 16000);
    }

    // The detector's cost: a minute of speech and noise, from a fresh state.
    const Scene minute = joinScene({clips[0], clips[1], clips[2], clips[0], clips[1]}, Noise::pink, 0.01f, 3.5, 2.0);
    QElapsedTimer timer;
    timer.start();
    const auto opened = VoiceActivityDetector::open(vadModel);
    const double openMs = double(timer.nsecsElapsed()) / 1e6;
    timer.restart();
    const std::vector<float> probabilities = opened->probabilities(minute.samples);
    const double perMinute = double(timer.nsecsElapsed()) / 1e6 * 60.0 / minute.seconds();
    std::printf("voice activity cost: %.1f ms per minute of audio (one thread; %.1f s measured), %.1f ms to open\n",
        perMinute, minute.seconds(), openMs);

    const QString recogniserModel = data + QStringLiteral("/models/for-tests-ggml-large-v3-turbo-q5_0.bin");
    // The CPU unless DICTORA_SPEECH_DEVICE names another (gpu on a machine that has one).
    AccurateSpeechEngine engine(speechDevicePreferenceFromEnvironment(SpeechDevicePreference::cpu));
    try {
        engine.load(recogniserModel).waitForFinished();
    } catch (...) {
        std::printf("recognition: cannot load %s\n", qPrintable(recogniserModel));
        return 0;
    }
    // 5 s of speech in a 20 s recording: two clips with pauses around them.
    std::vector<float> five = clips[1];
    five.resize(std::min<size_t>(five.size(), 3 * 16000));
    std::vector<float> rest = clips[3];
    five.insert(five.end(), rest.begin(), rest.end());
    const Scene twenty = joinScene({std::vector<float>(five.begin(), five.begin() + 40000),
                                       std::vector<float>(five.begin() + 40000, five.end())},
        Noise::pink, 0.01f, 6.0, 4.0);
    const int runs = qEnvironmentVariableIsSet("DICTORA_BENCH_RUNS")
        ? std::max(1, qEnvironmentVariableIntValue("DICTORA_BENCH_RUNS")) : 2;
    std::printf("time after the stop press to the final text, %.1f s recording with %.1f s of speech "
                "(streamed as captured, %d threads, on %s, test model without weights, %d runs):\n",
        twenty.seconds(), double(five.size()) / 16000,
        AccurateSpeechEngine::threadCountFor(AccurateSpeechEngine::activeProcessorCount()),
        qPrintable(engine.deviceName()), runs);
    for (const bool gated : {false, true}) {
        std::vector<double> waits;
        qint64 sent = 0;
        for (int run = 0; run < runs; ++run) {
            const Streamed streamed = afterStop(engine, twenty.samples, gated ? vadModel : QString());
            waits.push_back(streamed.seconds);
            sent = streamed.sent;
        }
        report(gated ? "  voice gate on (speech only" : "  voice gate off (whole recording", sent, waits);
    }

    // A recording past one window has its first chunk in the recogniser while
    // it goes on; the user cancels. From the cancel to the recogniser letting
    // go, and to the queue taking the next dictation's recognition (here one
    // already abandoned, so that it returns as soon as it is taken).
    const Scene long40 = joinScene({clips[0], clips[1], clips[2], clips[0], clips[1]}, Noise::pink, 0.01f, 3.0, 2.0);
    std::vector<double> letGo, queueFree;
    for (int run = 0; run < std::max(runs, 5); ++run) {
        QFuture<AccurateSpeechResult> chunk;
        ChunkedTranscription stream([&](std::vector<float> samples, std::shared_ptr<const std::atomic_bool> skip) {
            chunk = engine.transcribe(std::move(samples), AccurateSpeechEngine::kSampleRate, std::move(skip));
            return chunk;
        });
        for (size_t at = 0; at < long40.samples.size() && stream.chunksSubmitted() == 0; at += 1600)
            stream.feed(long40.samples.data() + at, std::min<size_t>(1600, long40.samples.size() - at));
        if (stream.chunksSubmitted() == 0) {
            std::printf("abort: no chunk went to the recogniser during %.1f s\n", long40.seconds());
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1000 + 400 * run)); // somewhere in the encoder
        timer.restart();
        stream.cancel();
        auto next = engine.transcribe(std::vector<float>(16000, 0.0f), AccurateSpeechEngine::kSampleRate,
            std::make_shared<std::atomic_bool>(true));
        chunk.waitForFinished();
        letGo.push_back(double(timer.nsecsElapsed()) / 1e9);
        next.waitForFinished();
        queueFree.push_back(double(timer.nsecsElapsed()) / 1e9);
    }
    std::printf("cancelled recognition (%.1f s recording, first chunk running; target 0.100 s):\n", long40.seconds());
    report("  cancel -> recogniser let go", 0, letGo);
    report("  cancel -> next recognition taken", 0, queueFree);
    return 0;
}
