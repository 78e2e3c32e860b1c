#include "speech/AccurateSpeechEngine.h"

#include "speech/GgmlBackends.h"

#include <QPromise>

#include <whisper.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>

#include <pthread.h>
#include <sched.h>

namespace dictora {

AccurateSpeechError::AccurateSpeechError(Case errorCase, qint32 code, QString description)
    : Error(std::move(description)), m_case(errorCase), m_code(code)
{
}

AccurateSpeechError AccurateSpeechError::transcriptionFailed(qint32 code)
{
    return {Case::transcriptionFailed, code,
        QStringLiteral("Local transcription failed (code %1). No substitute transcript was pasted.").arg(code)};
}

AccurateSpeechError AccurateSpeechError::modelCouldNotLoad()
{
    return {Case::modelCouldNotLoad, 0,
        QStringLiteral("The accuracy model could not be loaded. The app will repair it automatically.")};
}

AccurateSpeechError AccurateSpeechError::modelNotLoaded()
{
    return {Case::modelNotLoaded, 0, QStringLiteral("The accuracy model is still getting ready.")};
}

AccurateSpeechError AccurateSpeechError::invalidAudioSampleRate()
{
    return {Case::invalidAudioSampleRate, 0, QStringLiteral("Captured microphone audio was not 16 kHz mono PCM.")};
}

AccurateSpeechEngine::AccurateSpeechEngine(SpeechDevicePreference preference, LogSink log, DeviceLister devices)
    : m_preference(preference), m_log(std::move(log)), m_devices(std::move(devices))
{
    // One thread, kept for the engine's life: whisper calls never overlap and
    // run in the order they were asked for. Work goes in with start(), never
    // as a QtConcurrent task: a thread waiting on such a task's future would
    // run it itself, beside the one under way.
    m_queue.setMaxThreadCount(1);
    m_queue.setExpiryTimeout(-1);
    if (preference == SpeechDevicePreference::software)
        exposeSoftwareVulkanDevice();
    loadGgmlBackends(); // once per process; nothing to do in a native build
}

void AccurateSpeechEngine::post(std::function<void()> work)
{
    m_queue.start([work = std::move(work)] {
        // Linux keeps at most 15 characters of a thread name: keep the distinctive end.
        static thread_local const bool named = [] {
            const std::string label(kQueueLabel);
            return pthread_setname_np(pthread_self(), label.substr(label.size() - 15).c_str()) == 0;
        }();
        Q_UNUSED(named);
        work();
    });
}

void AccurateSpeechEngine::log(const QString &message) const
{
    if (m_log)
        m_log(message);
}

QString AccurateSpeechEngine::deviceName() const
{
    std::lock_guard lock(m_deviceMutex);
    return m_deviceName;
}

bool AccurateSpeechEngine::usesGpu() const
{
    std::lock_guard lock(m_deviceMutex);
    return m_onGpu;
}

void AccurateSpeechEngine::setDevice(const QString &name, bool gpu)
{
    {
        std::lock_guard lock(m_deviceMutex);
        if (m_deviceName == name && m_onGpu == gpu)
            return; // a reload on the same device says nothing new
        m_deviceName = name;
        m_onGpu = gpu;
    }
    log(QStringLiteral("speech engine device=") + name);
}

whisper_context *AccurateSpeechEngine::initContext(const QByteArray &path, bool useGpu, int gpuIndex)
{
    whisper_context_params params = whisper_context_default_params();
    params.use_gpu = useGpu;
    params.gpu_device = gpuIndex;
    params.flash_attn = true;
    return whisper_init_from_file_with_params(path.constData(), params);
}

bool AccurateSpeechEngine::fallBackToCpu(const QString &why)
{
    log(QStringLiteral("speech engine gpu unusable, falling back to cpu reason=") + why);
    if (m_context) {
        whisper_free(m_context);
        m_context = nullptr;
    }
    m_context = initContext(m_modelPath, false, 0);
    if (m_context)
        setDevice(QStringLiteral("cpu"), false);
    return m_context != nullptr;
}

AccurateSpeechEngine::~AccurateSpeechEngine()
{
    // Runs after every queued item; the pool's destructor waits for it.
    post([this] {
        if (m_context) {
            whisper_free(m_context);
            m_context = nullptr;
        }
    });
}

QFuture<void> AccurateSpeechEngine::load(const QString &modelPath)
{
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    const QByteArray path = modelPath.toLocal8Bit();
    post([this, promise, path] {
        if (m_context) {
            whisper_free(m_context);
            m_context = nullptr;
        }
        m_modelPath = path;
        SpeechDevicePreference preference;
        int gpuIndex;
        {
            const std::lock_guard lock(m_optionsMutex);
            preference = m_preference;
            gpuIndex = m_gpuIndex;
        }
        const SpeechDeviceChoice choice =
            chooseSpeechDevice(m_devices ? m_devices() : QList<ComputeDevice>{}, preference, gpuIndex);
        if (!choice.useGpu
            && (preference == SpeechDevicePreference::gpu || preference == SpeechDevicePreference::software))
            log(QStringLiteral("speech engine gpu requested but unavailable reason=") + choice.reason);
        m_context = initContext(path, choice.useGpu, choice.gpuIndex);
        if (choice.useGpu) {
            if (!m_context) {
                fallBackToCpu(QStringLiteral("load failed on ") + choice.name);
            } else {
                // The GPU back-end compiles its pipelines on first use: pay for
                // that now, before the model is called ready, not in the first dictation.
                const std::vector<float> silence(kWarmUpSamples, 0.0f);
                const int code = runFull(silence.data(), int(silence.size()));
                if (code != 0)
                    fallBackToCpu(QStringLiteral("first run failed on %1 code=%2").arg(choice.name).arg(code));
                else
                    setDevice(choice.name, true);
            }
        } else if (m_context) {
            setDevice(QStringLiteral("cpu"), false);
        }
        if (!m_context)
            promise->setException(std::make_exception_ptr(AccurateSpeechError::modelCouldNotLoad()));
        promise->finish();
    });
    return future;
}

QFuture<AccurateSpeechResult> AccurateSpeechEngine::transcribe(const QList<float> &samples, int sampleRate)
{
    auto owner = std::make_shared<const QList<float>>(samples); // shares the buffer
    return enqueue(owner, owner->constData(), owner->size(), sampleRate);
}

QFuture<AccurateSpeechResult> AccurateSpeechEngine::transcribe(std::vector<float> samples, int sampleRate)
{
    auto owner = std::make_shared<const std::vector<float>>(std::move(samples));
    return enqueue(owner, owner->data(), qsizetype(owner->size()), sampleRate);
}

QFuture<AccurateSpeechResult> AccurateSpeechEngine::transcribe(
    std::vector<float> samples, int sampleRate, std::shared_ptr<const std::atomic_bool> skip)
{
    auto owner = std::make_shared<const std::vector<float>>(std::move(samples));
    return enqueue(owner, owner->data(), qsizetype(owner->size()), sampleRate, std::move(skip));
}

int AccurateSpeechEngine::runFull(const float *samples, int count, const std::atomic_bool *abandon)
{
    whisper_full_params params = whisper_full_default_params(WHISPER_SAMPLING_GREEDY);
    if (abandon) {
        params.abort_callback = [](void *flag) { return static_cast<const std::atomic_bool *>(flag)->load(); };
        params.abort_callback_user_data = const_cast<std::atomic_bool *>(abandon);
    }
    params.n_threads = threadCountFor(activeProcessorCount());
    params.translate = false;
    params.no_context = true;
    params.no_timestamps = true;
    params.single_segment = false;
    params.print_special = false;
    params.print_progress = false;
    params.print_realtime = false;
    params.print_timestamps = false;
    params.token_timestamps = false;
    const RecognitionOptions options = recognitionOptions();
    // An English-only model has nothing to detect and no other language.
    const bool multilingual = whisper_is_multilingual(m_context) != 0;
    const QByteArray language = multilingual ? options.language.toUtf8() : QByteArrayLiteral("en");
    const QByteArray prompt = options.initialPrompt.trimmed().toUtf8();
    params.language = language.constData();
    params.initial_prompt = prompt.isEmpty() ? nullptr : prompt.constData();
    params.suppress_blank = true;
    params.greedy.best_of = 1;
    // What the model is told, once per change: the log shows a setting took effect.
    const QString told = QStringLiteral("speech engine options language=%1 promptChars=%2")
                             .arg(QString::fromUtf8(language))
                             .arg(options.initialPrompt.trimmed().size());
    if (told != m_toldOptions) {
        m_toldOptions = told;
        log(told);
    }
    const int code = whisper_full(m_context, params, samples, count);
    m_lastLanguage = QString::fromUtf8(language);
    if (code == 0 && language == "auto")
        m_lastLanguage = QString::fromUtf8(whisper_lang_str(whisper_full_lang_id(m_context)));
    return code;
}

void AccurateSpeechEngine::setDevicePreference(SpeechDevicePreference preference, int gpuIndex)
{
    const std::lock_guard lock(m_optionsMutex);
    m_preference = preference;
    m_gpuIndex = gpuIndex;
}

void AccurateSpeechEngine::setRecognitionOptions(const RecognitionOptions &options)
{
    const std::lock_guard lock(m_optionsMutex);
    m_options = options;
    if (m_options.language.isEmpty())
        m_options.language = QStringLiteral("en");
}

RecognitionOptions AccurateSpeechEngine::recognitionOptions() const
{
    const std::lock_guard lock(m_optionsMutex);
    return m_options;
}

QFuture<AccurateSpeechEngine::PromptFit> AccurateSpeechEngine::measurePrompt(const QString &text)
{
    auto promise = std::make_shared<QPromise<PromptFit>>();
    QFuture<PromptFit> future = promise->future();
    promise->start();
    post([this, promise, bytes = text.trimmed().toUtf8()] {
        PromptFit fit;
        if (m_context) {
            fit.limit = whisper_n_text_ctx(m_context) / 2;
            fit.tokens = bytes.isEmpty() ? 0 : -whisper_tokenize(m_context, bytes.constData(), nullptr, 0);
        }
        promise->addResult(fit);
        promise->finish();
    });
    return future;
}

QList<SpeechLanguage> speechLanguages()
{
    QList<SpeechLanguage> languages;
    for (int id = 0; id <= whisper_lang_max_id(); ++id)
        languages.append({QString::fromUtf8(whisper_lang_str(id)), QString::fromUtf8(whisper_lang_str_full(id))});
    return languages;
}

QFuture<AccurateSpeechResult> AccurateSpeechEngine::enqueue(std::shared_ptr<const void> owner, const float *samples,
    qsizetype sampleCount, int sampleRate, std::shared_ptr<const std::atomic_bool> skip)
{
    auto promise = std::make_shared<QPromise<AccurateSpeechResult>>();
    QFuture<AccurateSpeechResult> future = promise->future();
    promise->start();
    if (sampleRate != kSampleRate) {
        promise->setException(std::make_exception_ptr(AccurateSpeechError::invalidAudioSampleRate()));
        promise->finish();
        return future;
    }
    post([this, promise, owner, samples, sampleCount, skip] {
        if (skip && skip->load()) {
            promise->addResult(AccurateSpeechResult{});
            promise->finish();
            return;
        }
        if (!m_context) {
            promise->setException(std::make_exception_ptr(AccurateSpeechError::modelNotLoaded()));
            promise->finish();
            return;
        }
        const auto started = std::chrono::steady_clock::now();

        // The recording limit (28.8 M samples) is far below what an int holds.
        const int count = int(std::min<qsizetype>(sampleCount, std::numeric_limits<int>::max()));
        int code = runFull(samples, count, skip.get());
        if (skip && skip->load()) {
            // Abandoned while it ran: nobody wants this text any more.
            promise->addResult(AccurateSpeechResult{});
            promise->finish();
            return;
        }
        if (code != 0 && usesGpu()) {
            // The recording is still here: run it again on the CPU rather than lose it.
            if (fallBackToCpu(QStringLiteral("recognition failed code=%1").arg(code)))
                code = runFull(samples, count, skip.get());
        }
        if (code != 0) {
            promise->setException(std::make_exception_ptr(AccurateSpeechError::transcriptionFailed(code)));
            promise->finish();
            return;
        }
        QList<QByteArray> segments;
        const int segmentCount = whisper_full_n_segments(m_context);
        for (int i = 0; i < segmentCount; ++i) {
            const char *text = whisper_full_get_segment_text(m_context, i);
            if (!text)
                continue;
            if (isNoSpeechSegment(i)) {
                log(QStringLiteral("recogniser segment dropped as no speech chars=%1 noSpeechProbability=%2")
                        .arg(qstrlen(text))
                        .arg(whisper_full_get_segment_no_speech_prob(m_context, i), 0, 'f', 2));
                continue;
            }
            segments.append(QByteArray(text));
        }
        const QString text = joinSegments(segments);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        const qint64 ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
        promise->addResult(AccurateSpeechResult{text, std::max<qint64>(ms, 0), m_lastLanguage});
        promise->finish();
    });
    return future;
}

bool AccurateSpeechEngine::isNoSpeechSegment(int segment) const
{
    // whisper's own rule for silence: its no-speech token likely and the
    // words it chose unlikely. Such text was made up from the background.
    const float noSpeech = whisper_full_get_segment_no_speech_prob(m_context, segment);
    if (noSpeech < kNoSpeechProbability)
        return false;
    const int tokens = whisper_full_n_tokens(m_context, segment);
    double logProbability = 0;
    int counted = 0;
    for (int t = 0; t < tokens; ++t) {
        const whisper_token_data data = whisper_full_get_token_data(m_context, segment, t);
        if (data.id >= whisper_token_eot(m_context))
            continue; // special tokens say nothing about the words
        logProbability += data.plog;
        ++counted;
    }
    return counted == 0 || logProbability / counted < kNoSpeechLogProbability;
}

int AccurateSpeechEngine::threadCountFor(int processorCount)
{
    return std::clamp(processorCount - 2, 2, 8);
}

int AccurateSpeechEngine::activeProcessorCount()
{
    // The processors this process may run on (containers and taskset narrow it).
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        const int count = CPU_COUNT(&set);
        if (count > 0)
            return count;
    }
    return std::max(1, int(std::thread::hardware_concurrency()));
}

QString AccurateSpeechEngine::joinSegments(const QList<QByteArray> &segments)
{
    // Joined as bytes first: a multi-byte character may straddle two segments.
    QByteArray all;
    for (const QByteArray &segment : segments)
        all += segment;
    return QString::fromUtf8(all).trimmed();
}

} // namespace dictora
