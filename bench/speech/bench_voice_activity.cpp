// The voice-activity detector on real speech joined with generated noise:
// its precision and recall over speech frames, the seconds sent to the
// recogniser against the seconds recorded, the wait after the press for 5 s
// of speech inside a 20 s recording sent whole and sent as speech only (on
// this machine's CPU, with the turbo-shaped test model, whose encoder costs
// what the real one does), how soon an abandoned recognition lets go, and the
// detector's own cost per minute of audio.
#include "speech/AccurateSpeechEngine.h"
#include "speech/RecognizerLogging.h"
#include "support/SpeechScenes.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
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

double recogniseSeconds(AccurateSpeechEngine &engine, std::vector<float> samples)
{
    QElapsedTimer timer;
    timer.start();
    engine.transcribe(std::move(samples), AccurateSpeechEngine::kSampleRate).waitForFinished();
    return double(timer.nsecsElapsed()) / 1e9;
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
    AccurateSpeechEngine engine(SpeechDevicePreference::cpu);
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
    recogniseSeconds(engine, std::vector<float>(16000, 0.0f)); // warm caches
    const double whole = recogniseSeconds(engine, twenty.samples);
    timer.restart();
    const auto gate = VoiceActivityDetector::open(vadModel);
    std::vector<float> speech = speechOnly(twenty.samples,
        speechSpans(gate->probabilities(twenty.samples), qsizetype(twenty.samples.size())));
    const double vadSeconds = double(timer.nsecsElapsed()) / 1e9;
    const double speechSeconds = double(speech.size()) / 16000;
    const double gated = vadSeconds + recogniseSeconds(engine, std::move(speech));
    std::printf("time after the press, %.1f s recording with %.1f s of speech (%d threads, CPU):\n",
        twenty.seconds(), double(five.size()) / 16000, AccurateSpeechEngine::threadCountFor(
                                                            AccurateSpeechEngine::activeProcessorCount()));
    std::printf("  whole recording sent: %.2f s\n  speech only (%.1f s sent): %.2f s (detector %.0f ms)\n", whole,
        speechSeconds, gated, vadSeconds * 1000);

    // An abandoned recognition: from the flag to the queue being free again.
    auto skip = std::make_shared<std::atomic_bool>(false);
    auto running = engine.transcribe(std::vector<float>(30 * 16000, 0.01f), AccurateSpeechEngine::kSampleRate, skip);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    timer.restart();
    skip->store(true);
    running.waitForFinished();
    std::printf("abandoned recognition let go %.0f ms after the abort\n", double(timer.nsecsElapsed()) / 1e6);
    return 0;
}
