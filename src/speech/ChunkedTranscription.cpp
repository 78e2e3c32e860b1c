#include "speech/ChunkedTranscription.h"

#include <QPromise>

#include <algorithm>
#include <cmath>
#include <exception>

namespace dictora {

namespace {

float rmsOf(const float *samples, size_t count)
{
    if (count == 0)
        return 0;
    double sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum += double(samples[i]) * double(samples[i]);
    return float(std::sqrt(sum / double(count)));
}

// The level speech reaches: a high percentile, so a few clicks do not set it.
float loudLevel(std::span<const float> levels)
{
    if (levels.empty())
        return 0;
    std::vector<float> sorted(levels.begin(), levels.end());
    const auto at = sorted.begin() + qsizetype(double(sorted.size() - 1) * 0.9);
    std::nth_element(sorted.begin(), at, sorted.end());
    return *at;
}

} // namespace

std::vector<float> frameLevels(std::span<const float> samples, int frameSamples)
{
    std::vector<float> levels;
    if (frameSamples <= 0)
        return levels;
    levels.reserve(samples.size() / size_t(frameSamples));
    for (size_t at = 0; at + size_t(frameSamples) <= samples.size(); at += size_t(frameSamples))
        levels.push_back(rmsOf(samples.data() + at, size_t(frameSamples)));
    return levels;
}

std::optional<qsizetype> chooseCutFrame(std::span<const float> levels, const ChunkRules &rules)
{
    const qsizetype frames = qsizetype(levels.size());
    const qsizetype minimum = rules.minimumChunkFrames();
    const qsizetype maximum = std::max(rules.maximumChunkFrames(), minimum);
    const qsizetype pause = std::max(rules.pauseFrames, 1);
    const qsizetype half = pause / 2;
    if (frames < minimum + pause - half && frames < maximum)
        return std::nullopt;

    const float threshold =
        std::max(rules.silenceLevel, rules.quietFraction * loudLevel(levels.first(size_t(std::min(frames, maximum)))));
    // A pause counts once `pause` quiet frames are in; the cut goes `half`
    // frames into it, and must land between the minimum and the maximum.
    const qsizetype firstStart = std::max<qsizetype>(minimum - half, 0);
    const qsizetype lastStart = maximum - half;
    qsizetype run = 0;
    for (qsizetype i = firstStart; i < frames && i < lastStart + pause; ++i) {
        if (levels[size_t(i)] >= threshold) {
            run = 0;
            continue;
        }
        if (++run == pause) {
            const qsizetype start = i - pause + 1;
            if (start <= lastStart)
                return start + half;
            break;
        }
    }
    if (frames < maximum)
        return std::nullopt;

    // No pause in time: cut at the quietest few frames of the range, so that
    // at worst a syllable's edge is cut rather than its middle.
    const qsizetype window = std::max<qsizetype>(pause / 6, 1);
    qsizetype best = minimum;
    double bestSum = -1;
    double sum = 0;
    for (qsizetype i = minimum; i < maximum; ++i) {
        sum += levels[size_t(i)];
        if (i - minimum >= window)
            sum -= levels[size_t(i - window)];
        if (i - minimum + 1 >= window && (bestSum < 0 || sum < bestSum)) {
            bestSum = sum;
            best = i - window + 1;
        }
    }
    return std::min(best + window / 2, maximum);
}

struct ChunkedTranscription::Outcome {
    std::mutex mutex;
    std::vector<QString> texts;
    QString language; // the first chunk's that says
    std::vector<std::exception_ptr> errors;
    size_t remaining = 0;
    QPromise<AccurateSpeechResult> promise;
    std::chrono::steady_clock::time_point finishedAt;

    void complete()
    {
        for (const std::exception_ptr &error : errors) {
            if (error) {
                promise.setException(error);
                promise.finish();
                return;
            }
        }
        const auto waited = std::chrono::steady_clock::now() - finishedAt;
        const qint64 ms = std::chrono::duration_cast<std::chrono::milliseconds>(waited).count();
        promise.addResult(AccurateSpeechResult{joinTexts(QList<QString>(texts.begin(), texts.end())), std::max<qint64>(ms, 0), language});
        promise.finish();
    }
};

ChunkRules ChunkRules::forVoiceActivity()
{
    ChunkRules rules;
    rules.frameSamples = VoiceActivityRules::kFrameSamples;
    rules.pauseFrames = 10; // 320 ms
    rules.silenceLevel = VoiceActivityRules{}.pauseThreshold;
    rules.quietFraction = 0;
    rules.minimumRecognisedRms = 0; // the detector decides
    return rules;
}

ChunkedTranscription::ChunkedTranscription(Recognise recognise, ChunkRules rules)
    : m_recognise(std::move(recognise)), m_rules(rules)
{
}

ChunkedTranscription::ChunkedTranscription(Recognise recognise, const QString &voiceActivityModel)
    : m_recognise(std::move(recognise)), m_detectorModel(voiceActivityModel)
{
}

ChunkedTranscription::~ChunkedTranscription()
{
    std::lock_guard lock(m_mutex);
    if (!m_finished)
        m_skip->store(true);
}

ChunkedTranscription::Recognise ChunkedTranscription::recogniserFor(AccurateSpeechEngine &engine)
{
    return [&engine](std::vector<float> chunk, std::shared_ptr<const std::atomic_bool> skip) {
        return engine.transcribe(std::move(chunk), AccurateSpeechEngine::kSampleRate, std::move(skip));
    };
}

QString ChunkedTranscription::joinTexts(const QList<QString> &texts)
{
    QStringList parts;
    for (const QString &text : texts) {
        const QString trimmed = text.trimmed();
        if (!trimmed.isEmpty())
            parts.append(trimmed);
    }
    return parts.join(QLatin1Char(' '));
}

void ChunkedTranscription::feed(const float *samples, size_t count)
{
    if (!samples || count == 0)
        return;
    std::lock_guard lock(m_mutex);
    if (m_finished || m_cancelled)
        return;
    if (!m_detectorModel.isEmpty()) {
        m_detector = VoiceActivityDetector::open(std::exchange(m_detectorModel, QString()));
        if (m_detector)
            m_rules = ChunkRules::forVoiceActivity();
    }
    m_pending.insert(m_pending.end(), samples, samples + count);
    if (m_fed < m_rules.maximumChunkSamples) {
        const size_t kept = size_t(std::min<qint64>(qint64(count), m_rules.maximumChunkSamples - m_fed));
        m_head.insert(m_head.end(), samples, samples + kept);
    }
    m_fed += qint64(count);
    levelLocked(samples, count);
    if (outgrewOneWindowLocked() && !m_held.empty()) {
        for (std::vector<float> &held : m_held)
            submitLocked(std::move(held));
        m_held.clear();
    }
    cutWhileReadyLocked();
}

void ChunkedTranscription::cutWhileReadyLocked()
{
    const qsizetype frame = m_rules.frameSamples;
    if (frame <= 0)
        return;
    while (qsizetype(m_levels.size()) >= m_rules.minimumChunkFrames()) {
        const std::optional<qsizetype> cut = chooseCutFrame(m_levels, m_rules);
        if (!cut || *cut <= 0)
            return;
        const qsizetype cutSamples = *cut * frame;
        std::vector<float> chunk(m_pending.begin(), m_pending.begin() + cutSamples);
        if (m_detector) {
            // A chunk keeps its speech only; one without any never leaves here.
            const std::vector<SpeechSpan> spans = speechSpans(std::span(m_levels).first(size_t(*cut)), cutSamples);
            chunk = speechOnly(chunk, spans);
        }
        m_pending.erase(m_pending.begin(), m_pending.begin() + cutSamples);
        m_levels.erase(m_levels.begin(), m_levels.begin() + *cut);
        m_levelledSamples -= cutSamples;
        if (m_detector && chunk.empty())
            continue;
        queueLocked(std::move(chunk));
    }
}

void ChunkedTranscription::levelLocked(const float *samples, size_t count)
{
    const qsizetype frame = m_rules.frameSamples;
    if (frame <= 0)
        return;
    if (m_detector) {
        const size_t before = m_levels.size();
        m_detector->feed(std::span(samples, count), m_levels);
        m_allLevels.insert(m_allLevels.end(), m_levels.begin() + qsizetype(before), m_levels.end());
        m_levelledSamples += qsizetype(m_levels.size() - before) * frame;
        return;
    }
    while (m_levelledSamples + frame <= qsizetype(m_pending.size())) {
        m_levels.push_back(rmsOf(m_pending.data() + m_levelledSamples, size_t(frame)));
        m_levelledSamples += frame;
    }
}

void ChunkedTranscription::queueLocked(std::vector<float> chunk)
{
    if (!outgrewOneWindowLocked()) {
        m_held.push_back(std::move(chunk));
        return;
    }
    for (std::vector<float> &held : m_held)
        submitLocked(std::move(held));
    m_held.clear();
    submitLocked(std::move(chunk));
}

void ChunkedTranscription::submitLocked(std::vector<float> chunk, std::span<const float> levels)
{
    if (m_detector && !levels.empty()) {
        chunk = speechOnly(chunk, speechSpans(levels, qsizetype(chunk.size())));
        if (chunk.empty())
            return;
    }
    const bool tooQuiet = qsizetype(chunk.size()) < m_rules.minimumRecognisedSamples
        || rmsOf(chunk.data(), chunk.size()) < m_rules.minimumRecognisedRms;
    if (tooQuiet || !m_recognise) {
        m_chunks.push_back(QtFuture::makeReadyFuture(AccurateSpeechResult{}));
        return;
    }
    m_sent += qint64(chunk.size());
    m_chunks.push_back(m_recognise(std::move(chunk), m_skip));
}

QFuture<AccurateSpeechResult> ChunkedTranscription::finish()
{
    auto outcome = std::make_shared<Outcome>();
    outcome->finishedAt = std::chrono::steady_clock::now();
    outcome->promise.start();
    QFuture<AccurateSpeechResult> result = outcome->promise.future();

    std::vector<QFuture<AccurateSpeechResult>> chunks;
    {
        std::lock_guard lock(m_mutex);
        if (m_finished || m_cancelled) {
            outcome->promise.addResult(AccurateSpeechResult{});
            outcome->promise.finish();
            return result;
        }
        m_finished = true;
        if (m_detector) {
            const size_t before = m_levels.size();
            m_detector->flush(m_levels);
            m_allLevels.insert(m_allLevels.end(), m_levels.begin() + qsizetype(before), m_levels.end());
        }
        if (!outgrewOneWindowLocked()) {
            // Fits in one window: recognised whole, the held chunks with it.
            m_held.clear();
            const std::span<const float> all(m_allLevels);
            if (!m_head.empty())
                submitLocked(std::move(m_head), all.first(std::min(all.size(), size_t(m_rules.maximumChunkFrames() + 1))));
        } else if (!m_pending.empty()) {
            submitLocked(std::move(m_pending), m_levels);
        }
        m_head = {};
        m_pending = {};
        m_levels.clear();
        m_levelledSamples = 0;
        chunks = m_chunks;
    }
    if (chunks.empty()) {
        outcome->complete();
        return result;
    }
    outcome->texts.resize(chunks.size());
    outcome->errors.resize(chunks.size());
    outcome->remaining = chunks.size();
    for (size_t i = 0; i < chunks.size(); ++i) {
        // Runs on the thread that finishes the chunk (or here, when it already has).
        chunks[i].then(QtFuture::Launch::Sync, [outcome, i](QFuture<AccurateSpeechResult> done) {
            std::lock_guard lock(outcome->mutex);
            try {
                outcome->texts[i] = done.result().text;
                if (outcome->language.isEmpty())
                    outcome->language = done.result().language;
            } catch (...) {
                outcome->errors[i] = std::current_exception();
            }
            if (--outcome->remaining == 0)
                outcome->complete();
        });
    }
    return result;
}

void ChunkedTranscription::cancel()
{
    std::lock_guard lock(m_mutex);
    if (m_finished)
        return;
    m_cancelled = true;
    m_skip->store(true);
    m_pending = {};
    m_head = {};
    m_held.clear();
    m_levels.clear();
    m_levelledSamples = 0;
    m_chunks.clear();
}

qint64 ChunkedTranscription::samplesSent() const
{
    std::lock_guard lock(m_mutex);
    return m_sent;
}

std::vector<float> ChunkedTranscription::speechProbabilities() const
{
    std::lock_guard lock(m_mutex);
    return m_allLevels;
}

int ChunkedTranscription::chunksSubmitted() const
{
    std::lock_guard lock(m_mutex);
    return int(m_chunks.size());
}

qint64 ChunkedTranscription::samplesFed() const
{
    std::lock_guard lock(m_mutex);
    return m_fed;
}

} // namespace dictora
