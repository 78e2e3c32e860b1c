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

ChunkedTranscription::ChunkedTranscription(Recognise recognise, ChunkRules rules)
    : m_recognise(std::move(recognise)), m_rules(rules)
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
    m_pending.insert(m_pending.end(), samples, samples + count);
    if (m_fed < m_rules.maximumChunkSamples) {
        const size_t kept = size_t(std::min<qint64>(qint64(count), m_rules.maximumChunkSamples - m_fed));
        m_head.insert(m_head.end(), samples, samples + kept);
    }
    m_fed += qint64(count);
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
    bool grew = false;
    while (m_levelledSamples + frame <= qsizetype(m_pending.size())) {
        m_levels.push_back(rmsOf(m_pending.data() + m_levelledSamples, size_t(frame)));
        m_levelledSamples += frame;
        grew = true;
    }
    while (grew && qsizetype(m_levels.size()) >= m_rules.minimumChunkFrames()) {
        const std::optional<qsizetype> cut = chooseCutFrame(m_levels, m_rules);
        if (!cut || *cut <= 0)
            return;
        const qsizetype cutSamples = *cut * frame;
        std::vector<float> chunk(m_pending.begin(), m_pending.begin() + cutSamples);
        m_pending.erase(m_pending.begin(), m_pending.begin() + cutSamples);
        m_levels.erase(m_levels.begin(), m_levels.begin() + *cut);
        m_levelledSamples -= cutSamples;
        queueLocked(std::move(chunk));
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

void ChunkedTranscription::submitLocked(std::vector<float> chunk)
{
    const bool tooQuiet = qsizetype(chunk.size()) < m_rules.minimumRecognisedSamples
        || rmsOf(chunk.data(), chunk.size()) < m_rules.minimumRecognisedRms;
    if (tooQuiet || !m_recognise) {
        m_chunks.push_back(QtFuture::makeReadyFuture(AccurateSpeechResult{}));
        return;
    }
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
        if (!outgrewOneWindowLocked()) {
            // Fits in one window: recognised whole, the held chunks with it.
            m_held.clear();
            if (!m_head.empty())
                submitLocked(std::move(m_head));
        } else if (!m_pending.empty()) {
            submitLocked(std::move(m_pending));
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
