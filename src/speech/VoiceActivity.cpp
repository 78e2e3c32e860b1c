#include "speech/VoiceActivity.h"

#include <whisper.h>

#include <QFileInfo>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>

namespace dictora {

std::vector<SpeechSpan> speechSpans(std::span<const float> probabilities, qsizetype totalSamples,
    const VoiceActivityRules &rules)
{
    const qsizetype frame = VoiceActivityRules::kFrameSamples;
    // Hysteresis: speech starts at the higher threshold and lasts until the
    // lower one, so a word's quieter end stays with it.
    std::vector<SpeechSpan> runs;
    bool inSpeech = false;
    for (size_t i = 0; i < probabilities.size(); ++i) {
        const float p = probabilities[i];
        const qsizetype at = std::min(qsizetype(i) * frame, totalSamples);
        if (!inSpeech && p >= rules.speechThreshold) {
            inSpeech = true;
            runs.push_back({at, at});
        } else if (inSpeech && p < rules.pauseThreshold) {
            inSpeech = false;
            runs.back().end = at;
        }
    }
    if (inSpeech)
        runs.back().end = std::min(qsizetype(probabilities.size()) * frame, totalSamples);

    std::vector<SpeechSpan> joined;
    for (const SpeechSpan &run : runs) {
        if (!joined.empty() && run.begin - joined.back().end < rules.joinedPauseSamples)
            joined.back().end = run.end;
        else
            joined.push_back(run);
    }
    std::vector<SpeechSpan> spans;
    for (const SpeechSpan &span : joined) {
        if (span.end - span.begin < rules.minimumSpeechSamples)
            continue;
        const SpeechSpan padded{std::max<qsizetype>(span.begin - rules.paddingSamples, 0),
            std::min(span.end + rules.paddingSamples, totalSamples)};
        if (!spans.empty() && padded.begin <= spans.back().end)
            spans.back().end = padded.end;
        else
            spans.push_back(padded);
    }
    return spans;
}

std::vector<float> speechOnly(std::span<const float> samples, const std::vector<SpeechSpan> &spans,
    const VoiceActivityRules &rules)
{
    // The padding already keeps some quiet on each side of a pause; this
    // tops it up to the pause we keep, so words do not run together.
    const qsizetype extra = std::max<qsizetype>(rules.keptPauseSamples - 2 * rules.paddingSamples, 0);
    const qsizetype total = qsizetype(samples.size());
    std::vector<float> out;
    out.reserve(size_t(spannedSamples(spans)));
    qsizetype previousEnd = -1;
    for (const SpeechSpan &span : spans) {
        const qsizetype begin = std::clamp<qsizetype>(span.begin, 0, total);
        const qsizetype end = std::clamp<qsizetype>(span.end, begin, total);
        if (previousEnd >= 0) {
            const qsizetype gap = begin - previousEnd;
            if (gap <= extra) {
                out.insert(out.end(), samples.begin() + previousEnd, samples.begin() + begin);
            } else {
                out.insert(out.end(), samples.begin() + previousEnd, samples.begin() + previousEnd + extra / 2);
                out.insert(out.end(), samples.begin() + begin - (extra - extra / 2), samples.begin() + begin);
            }
        }
        out.insert(out.end(), samples.begin() + begin, samples.begin() + end);
        previousEnd = end;
    }
    return out;
}

qsizetype spannedSamples(const std::vector<SpeechSpan> &spans)
{
    qsizetype total = 0;
    for (const SpeechSpan &span : spans)
        total += span.end - span.begin;
    return total;
}

bool isNonSpeechOutput(const QString &text)
{
    static const QRegularExpression annotation(QStringLiteral("^(\\s*(\\[[^\\]]*\\]|\\([^)]*\\)|\\*[^*]*\\*|♪+)\\s*)+$"));
    static const QRegularExpression notWord(QStringLiteral("[^a-z' ]+"));
    static const QStringList fillers{QStringLiteral("thank you"), QStringLiteral("thank you very much"),
        QStringLiteral("thanks"), QStringLiteral("thanks for watching"), QStringLiteral("thank you for watching"),
        QStringLiteral("thank you so much for watching"), QStringLiteral("please subscribe"), QStringLiteral("you"),
        QStringLiteral("subtitles by the amaraorg community")};
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return false;
    if (annotation.match(trimmed).hasMatch())
        return true;
    const QString words = trimmed.toLower().replace(notWord, QString()).simplified();
    return words.isEmpty() || fillers.contains(words);
}

AccuracyModelContract VoiceActivityModel::product()
{
    return {QStringLiteral("ggml-silero-v6.2.0.bin"), 885098,
        QStringLiteral("2aa269b785eeb53a82983a20501ddf7c1d9c48e33ab63a41391ac6c9f7fb6987"),
        QUrl(QStringLiteral("https://huggingface.co/ggml-org/whisper-vad/resolve/main/ggml-silero-v6.2.0.bin"))};
}

AccuracyModelContract VoiceActivityModel::current()
{
    const QString path = qEnvironmentVariable(kEnvironmentVariable);
    if (path.isEmpty())
        return product();
    return AccuracyModelContract::fromJsonFile(path);
}

QString VoiceActivityModelPath::get() const
{
    std::lock_guard lock(m_mutex);
    return m_path;
}

void VoiceActivityModelPath::set(const QString &path)
{
    std::lock_guard lock(m_mutex);
    m_path = path;
}

std::unique_ptr<VoiceActivityDetector> VoiceActivityDetector::open(const QString &modelPath)
{
    if (modelPath.isEmpty() || !QFileInfo(modelPath).isFile())
        return nullptr;
    whisper_vad_context_params params = whisper_vad_default_context_params();
    params.n_threads = 1; // a tiny network: more threads cost more than they save
    params.use_gpu = false;
    whisper_vad_context *context = whisper_vad_init_from_file_with_params(modelPath.toLocal8Bit().constData(), params);
    if (!context)
        return nullptr;
    return std::unique_ptr<VoiceActivityDetector>(new VoiceActivityDetector(context));
}

VoiceActivityDetector::~VoiceActivityDetector()
{
    whisper_vad_free(m_context);
}

void VoiceActivityDetector::detect(const float *samples, int count, bool reset, std::vector<float> &out)
{
    if (count <= 0)
        return;
    const bool ok = reset ? whisper_vad_detect_speech(m_context, samples, count)
                          : whisper_vad_detect_speech_no_reset(m_context, samples, count);
    const int frames = (count + VoiceActivityRules::kFrameSamples - 1) / VoiceActivityRules::kFrameSamples;
    if (!ok) {
        // A failed computation counts as speech: better recognised than lost.
        out.insert(out.end(), size_t(frames), 1.0f);
        return;
    }
    const float *probs = whisper_vad_probs(m_context);
    out.insert(out.end(), probs, probs + std::min(frames, whisper_vad_n_probs(m_context)));
}

std::vector<float> VoiceActivityDetector::probabilities(std::span<const float> samples)
{
    std::vector<float> out;
    out.reserve(samples.size() / VoiceActivityRules::kFrameSamples + 1);
    detect(samples.data(), int(samples.size()), true, out);
    m_started = false;
    m_remainder.clear();
    return out;
}

void VoiceActivityDetector::feed(std::span<const float> samples, std::vector<float> &out)
{
    m_remainder.insert(m_remainder.end(), samples.begin(), samples.end());
    const size_t whole = m_remainder.size() / VoiceActivityRules::kFrameSamples * VoiceActivityRules::kFrameSamples;
    // Batches of half a second: each call builds the graph anew.
    if (whole < 16 * size_t(VoiceActivityRules::kFrameSamples))
        return;
    detect(m_remainder.data(), int(whole), !m_started, out);
    m_started = true;
    m_remainder.erase(m_remainder.begin(), m_remainder.begin() + qsizetype(whole));
}

void VoiceActivityDetector::flush(std::vector<float> &out)
{
    detect(m_remainder.data(), int(m_remainder.size()), !m_started, out);
    m_started = true;
    m_remainder.clear();
}

} // namespace dictora
