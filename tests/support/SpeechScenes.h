#pragma once

// Real speech clips joined with generated noise of known length: where the
// speech is, is known to the sample. For the voice-activity tests and benchmark.
#include "speech/AudioFile.h"
#include "speech/VoiceActivity.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

namespace dictora::test {

enum class Noise { silence, white, pink, clicks, tone };

// `seconds` of one kind of noise at about `level` (peak for clicks and tone).
inline std::vector<float> noise(Noise kind, double seconds, float level, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    const qsizetype count = qsizetype(std::lround(seconds * 16000));
    std::vector<float> out(size_t(count), 0.0f);
    double b0 = 0, b1 = 0, b2 = 0; // pink: white through three leaky poles
    for (qsizetype i = 0; i < count; ++i) {
        const float w = gauss(random);
        switch (kind) {
        case Noise::silence: out[size_t(i)] = 0.0003f * w; break; // a quiet room, not digital zero
        case Noise::white: out[size_t(i)] = level * w; break;
        case Noise::pink:
            b0 = 0.99765 * b0 + w * 0.0990460;
            b1 = 0.96300 * b1 + w * 0.2965164;
            b2 = 0.57000 * b2 + w * 1.0526913;
            out[size_t(i)] = float(level * (b0 + b1 + b2 + w * 0.1848) / 2.0);
            break;
        case Noise::clicks: // a key every 180 ms: 3 ms of decaying crack
            out[size_t(i)] = (i % 2880) < 48 ? level * w * std::exp(-float(i % 2880) / 12.0f) : 0.0002f * w;
            break;
        case Noise::tone: out[size_t(i)] = level * float(std::sin(2 * std::numbers::pi * 440.0 * double(i) / 16000)); break;
        }
    }
    return out;
}

// A clip with its own leading and trailing quiet cut off, so its extent is speech.
inline std::vector<float> speechOf(const QString &path)
{
    const QList<float> all = AudioFile::decodeToMono16k(path).samples;
    const auto loud = [](float s) { return std::abs(s) > 0.02f; };
    const auto first = std::find_if(all.begin(), all.end(), loud);
    const auto last = std::find_if(all.rbegin(), all.rend(), loud).base();
    return first < last ? std::vector<float>(first, last) : std::vector<float>{};
}

struct Scene {
    std::vector<float> samples;
    std::vector<SpeechSpan> speech; // where the clips are
    double seconds() const { return double(samples.size()) / 16000; }
};

// noise, clip, noise, clip, …, noise; the background goes on under the speech.
inline Scene joinScene(const std::vector<std::vector<float>> &clips, Noise background, float level,
    double gapSeconds, double edgeSeconds)
{
    Scene scene;
    for (size_t i = 0; i < clips.size(); ++i) {
        const std::vector<float> gap = noise(background, i == 0 ? edgeSeconds : gapSeconds, level, unsigned(i + 1));
        scene.samples.insert(scene.samples.end(), gap.begin(), gap.end());
        const qsizetype begin = qsizetype(scene.samples.size());
        const std::vector<float> under = noise(background, double(clips[i].size()) / 16000, level, unsigned(i + 50));
        for (size_t s = 0; s < clips[i].size(); ++s)
            scene.samples.push_back(clips[i][s] + under[s]);
        scene.speech.push_back({begin, qsizetype(scene.samples.size())});
    }
    const std::vector<float> tail = noise(background, edgeSeconds, level, 99);
    scene.samples.insert(scene.samples.end(), tail.begin(), tail.end());
    return scene;
}

// Precision and recall of detected speech over 10 ms frames.
struct FrameScore {
    double precision = 0;
    double recall = 0;
};

inline FrameScore scoreFrames(const Scene &scene, const std::vector<SpeechSpan> &detected)
{
    const auto inside = [](const std::vector<SpeechSpan> &spans, qsizetype at) {
        return std::any_of(spans.begin(), spans.end(), [at](const SpeechSpan &s) { return at >= s.begin && at < s.end; });
    };
    double truePositive = 0, falsePositive = 0, falseNegative = 0;
    for (qsizetype at = 80; at < qsizetype(scene.samples.size()); at += 160) {
        const bool speech = inside(scene.speech, at);
        const bool found = inside(detected, at);
        truePositive += speech && found;
        falsePositive += !speech && found;
        falseNegative += speech && !found;
    }
    return {truePositive + falsePositive > 0 ? truePositive / (truePositive + falsePositive) : 1.0,
        truePositive + falseNegative > 0 ? truePositive / (truePositive + falseNegative) : 1.0};
}

} // namespace dictora::test
