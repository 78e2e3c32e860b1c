#pragma once

#include "speech/AccuracyModelContract.h"

#include <QString>

#include <memory>
#include <mutex>
#include <span>
#include <vector>

struct whisper_vad_context;

namespace dictora {

// Where speech is in a recording, as whisper.cpp's Silero detector sees it.
// We send the recogniser only the speech: silence and noise are where it
// invents text, and every second trimmed is a second not recognised.
struct VoiceActivityRules {
    static constexpr int kFrameSamples = 512; // Silero's window at 16 kHz (32 ms)

    float speechThreshold = 0.5f;    // a frame this likely to be speech starts speech
    float pauseThreshold = 0.35f;    // speech goes on until frames fall below this
    qsizetype minimumSpeechSamples = 4000; // 250 ms: shorter bursts are clicks and breaths
    qsizetype joinedPauseSamples = 4800;   // pauses shorter than 300 ms stay inside the speech
    qsizetype paddingSamples = 1600;       // 100 ms kept before and after speech: soft word edges
    qsizetype keptPauseSamples = 4800;     // a longer pause is shortened to 300 ms
};

// A stretch of speech, in samples, end exclusive, padding included.
struct SpeechSpan {
    qsizetype begin = 0;
    qsizetype end = 0;
    friend bool operator==(const SpeechSpan &, const SpeechSpan &) = default;
};

// Speech stretches from per-frame speech probabilities over `totalSamples`.
std::vector<SpeechSpan> speechSpans(std::span<const float> probabilities, qsizetype totalSamples,
    const VoiceActivityRules &rules = {});
// The samples of the spans only, each pause between them cut to
// rules.keptPauseSamples (its middle goes); empty when there are no spans.
std::vector<float> speechOnly(std::span<const float> samples, const std::vector<SpeechSpan> &spans,
    const VoiceActivityRules &rules = {});
qsizetype spannedSamples(const std::vector<SpeechSpan> &spans);

// Text the recogniser produces for audio without speech: its annotations
// ("[BLANK_AUDIO]", "(music)") and the stock phrases of subtitled video it
// learned from ("Thank you.", "Thanks for watching!") standing alone.
bool isNonSpeechOutput(const QString &text);

// The detector's model file. Small (885 KB), fetched and verified like the
// recognition model; without it recognition still works on whole recordings.
struct VoiceActivityModel {
    static constexpr const char *kEnvironmentVariable = "DICTORA_VAD_CONTRACT";
    static AccuracyModelContract product();
    // DICTORA_VAD_CONTRACT's file when set, else the product's; throws
    // AccuracyModelContractError for a malformed file.
    static AccuracyModelContract current();
};

// The verified model's path once it is in place; any thread.
class VoiceActivityModelPath {
public:
    QString get() const;
    void set(const QString &path);

private:
    mutable std::mutex m_mutex;
    QString m_path;
};

// One Silero context. Not shared between threads: each user opens its own
// (loading takes a few milliseconds). Probabilities come per 512-sample frame.
class VoiceActivityDetector {
public:
    // nullptr when the file is missing or not a Silero model.
    static std::unique_ptr<VoiceActivityDetector> open(const QString &modelPath);
    ~VoiceActivityDetector();
    VoiceActivityDetector(const VoiceActivityDetector &) = delete;
    VoiceActivityDetector &operator=(const VoiceActivityDetector &) = delete;

    // A whole recording, from a fresh state.
    std::vector<float> probabilities(std::span<const float> samples);
    // A recording as it arrives: appends the probabilities of the whole
    // frames now complete to `out`, keeps the state and the remainder.
    void feed(std::span<const float> samples, std::vector<float> &out);
    // The rest, its last frame padded with silence.
    void flush(std::vector<float> &out);

private:
    explicit VoiceActivityDetector(whisper_vad_context *context) : m_context(context) {}
    void detect(const float *samples, int count, bool reset, std::vector<float> &out);

    whisper_vad_context *m_context;
    std::vector<float> m_remainder;
    bool m_started = false;
};

} // namespace dictora
