#pragma once

#include "speech/AccurateSpeechEngine.h"
#include "speech/VoiceActivity.h"

#include <QFuture>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace dictora {

// Where a long recording may be cut for recognition. Frames are short slices
// whose RMS level stands for the loudness of that moment.
struct ChunkRules {
    int frameSamples = 160;                // 10 ms at 16 kHz
    qsizetype minimumChunkSamples = 320'000; // 20 s: whisper sees a full window's worth of context
    qsizetype maximumChunkSamples = 480'000; // 30 s: whisper's window; a longer chunk is cut regardless
    int pauseFrames = 30;                  // 300 ms of quiet counts as a pause
    float silenceLevel = 0.002f;           // an RMS below this is always quiet
    float quietFraction = 0.1f;            // or below this fraction of the speech's loud level (-20 dB)
    // A chunk as short or as quiet as a recording the controller would not
    // recognise is not recognised either: whisper invents words in silence.
    qsizetype minimumRecognisedSamples = 1'600;
    float minimumRecognisedRms = 0.0015f;

    // With a voice-activity detector the frames are its windows and their
    // "levels" its speech probabilities: a pause is where speech is unlikely.
    static ChunkRules forVoiceActivity();

    qsizetype minimumChunkFrames() const { return minimumChunkSamples / frameSamples; }
    qsizetype maximumChunkFrames() const { return maximumChunkSamples / frameSamples; }
};

// Pure cut-point choice over the frame levels since the chunk began: the first
// pause whose middle lies between the minimum and the maximum length (the cut
// goes into that middle), else, once the maximum is reached, the quietest
// moment in that range; nothing while neither applies yet. Returns a frame index.
std::optional<qsizetype> chooseCutFrame(std::span<const float> frameLevels, const ChunkRules &rules = {});
// RMS of each whole frame.
std::vector<float> frameLevels(std::span<const float> samples, int frameSamples);

// Recognises a recording while it is still being captured: samples are fed as
// they arrive, cut at pauses into chunks of 20-30 s, and each chunk is handed
// to the recogniser's serial queue at once. At the end only the rest is left
// to recognise; the chunks' texts are joined as one result, whose duration is
// the time from finish() to the text, i.e. what the user waits for. Chunks
// are held back until the recording outgrows one window: a recording that
// fits in one is recognised whole at finish(), never as a chunk and a rest,
// which costs two windows on a recogniser slower than real time.
class ChunkedTranscription {
public:
    using Recognise = std::function<QFuture<AccurateSpeechResult>(
        std::vector<float> chunk, std::shared_ptr<const std::atomic_bool> skip)>;

    explicit ChunkedTranscription(Recognise recognise, ChunkRules rules = {});
    // With the detector's model, chunks end where speech pauses, and each
    // chunk goes to the recogniser as speech only (see speechOnly()); one
    // without speech is not recognised at all. The model is opened by the
    // first feed(), on the capture thread; if it cannot be, loudness decides.
    ChunkedTranscription(Recognise recognise, const QString &voiceActivityModel);
    static Recognise recogniserFor(AccurateSpeechEngine &engine);
    // Cancels: a transcription dropped unfinished discards its work.
    ~ChunkedTranscription();
    ChunkedTranscription(const ChunkedTranscription &) = delete;
    ChunkedTranscription &operator=(const ChunkedTranscription &) = delete;

    // 16 kHz mono samples, in order; any thread (the capture thread feeds it).
    void feed(const float *samples, size_t count);
    // Hands over the rest; call once. Fails with the first chunk's error.
    QFuture<AccurateSpeechResult> finish();
    // Drops everything: queued chunks are skipped, results ignored.
    void cancel();

    int chunksSubmitted() const;
    qint64 samplesFed() const;
    // Samples handed to the recogniser so far.
    qint64 samplesSent() const;
    // Frames the detector judged (its probabilities), for a whole-recording
    // verdict without a second pass; empty without a detector.
    std::vector<float> speechProbabilities() const;

    // Joins chunk texts with one space, skipping empty ones.
    static QString joinTexts(const QList<QString> &texts);

private:
    struct Outcome;
    void submitLocked(std::vector<float> chunk, std::span<const float> levels = {});
    void levelLocked(const float *samples, size_t count);
    void queueLocked(std::vector<float> chunk);
    bool outgrewOneWindowLocked() const { return m_fed > m_rules.maximumChunkSamples; }
    void cutWhileReadyLocked();

    Recognise m_recognise;
    ChunkRules m_rules;
    mutable std::mutex m_mutex;
    std::vector<float> m_pending;     // samples since the last cut
    std::vector<float> m_head;        // the first window's worth of the recording
    std::vector<std::vector<float>> m_held; // chunks cut before the recording outgrew one window
    std::vector<float> m_levels;      // their whole frames' levels
    QString m_detectorModel;          // opened at the first feed
    std::unique_ptr<VoiceActivityDetector> m_detector;
    std::vector<float> m_allLevels;   // every frame's speech probability (with a detector)
    qint64 m_sent = 0;
    qsizetype m_levelledSamples = 0;  // samples of m_pending covered by m_levels
    qint64 m_fed = 0;
    bool m_finished = false;
    bool m_cancelled = false;
    std::shared_ptr<std::atomic_bool> m_skip = std::make_shared<std::atomic_bool>(false);
    std::vector<QFuture<AccurateSpeechResult>> m_chunks;
};

} // namespace dictora
