#pragma once

#include "core/Error.h"
#include "speech/SpeechDevice.h"

#include <QFuture>
#include <QList>
#include <QString>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

struct whisper_context;

namespace dictora {

// Recognised text of one recording and the time recognition took.
struct AccurateSpeechResult {
    QString text;
    qint64 durationMilliseconds = 0;
    QString language; // the code recognition used ("en", "de", …); empty when nothing ran

    friend bool operator==(const AccurateSpeechResult &, const AccurateSpeechResult &) = default;
};

class AccurateSpeechError : public Error {
public:
    enum class Case { transcriptionFailed, modelCouldNotLoad, modelNotLoaded, invalidAudioSampleRate };

    static AccurateSpeechError transcriptionFailed(qint32 code);
    static AccurateSpeechError modelCouldNotLoad();
    static AccurateSpeechError modelNotLoaded();
    static AccurateSpeechError invalidAudioSampleRate();

    Case errorCase() const { return m_case; }
    qint32 code() const { return m_code; }

private:
    AccurateSpeechError(Case errorCase, qint32 code, QString description);
    Case m_case;
    qint32 m_code;
};

// How recognition listens: its language ("en", "auto" to detect it, or a
// code of the model's list) and the names and terms it should expect, given
// to the model as its initial prompt.
struct RecognitionOptions {
    QString language = QStringLiteral("en");
    QString initialPrompt;

    friend bool operator==(const RecognitionOptions &, const RecognitionOptions &) = default;
};

// The languages the speech library knows: code and English name, in its order.
struct SpeechLanguage {
    QString code;
    QString name;
};
QList<SpeechLanguage> speechLanguages();

// Local recognition over whisper.cpp. One model at a time; every library call
// happens on the engine's one-thread pool, so loads and recognitions never overlap.
// The futures may be awaited from any thread; each finishes exactly once,
// with a value or an AccurateSpeechError.
//
// The device is chosen at each load: a real GPU when there is one (and the
// preference allows), else the CPU. A GPU that fails to load or to run is
// given up for the CPU, so a recording is never lost to a driver fault.
class AccurateSpeechEngine {
public:
    static constexpr int kSampleRate = 16000;
    static constexpr const char *kQueueLabel = "com.dictora.app.accurate-speech";
    // One second of silence: enough for the GPU back-end to build its pipelines.
    static constexpr int kWarmUpSamples = kSampleRate;
    // A segment this likely to be no speech, whose words average below this
    // log-probability, is dropped (whisper's own thresholds for silence).
    static constexpr float kNoSpeechProbability = 0.6f;
    static constexpr double kNoSpeechLogProbability = -1.0;

    using LogSink = std::function<void(const QString &message)>;
    // The devices the library offers; replaceable so the choice can be exercised without a GPU.
    using DeviceLister = std::function<QList<ComputeDevice>()>;

    explicit AccurateSpeechEngine(SpeechDevicePreference preference = SpeechDevicePreference::automatic,
                                  LogSink log = {}, DeviceLister devices = availableComputeDevices);
    ~AccurateSpeechEngine();
    AccurateSpeechEngine(const AccurateSpeechEngine &) = delete;
    AccurateSpeechEngine &operator=(const AccurateSpeechEngine &) = delete;

    // Frees any loaded model first, so a failed reload leaves none.
    QFuture<void> load(const QString &modelPath);
    // The samples are shared with (or moved to) the queue, never copied.
    QFuture<AccurateSpeechResult> transcribe(const QList<float> &samples, int sampleRate);
    QFuture<AccurateSpeechResult> transcribe(std::vector<float> samples, int sampleRate);
    // As above, but a work item that has not started when `skip` becomes true
    // finishes at once with an empty result: abandoned dictations free the queue.
    QFuture<AccurateSpeechResult> transcribe(std::vector<float> samples, int sampleRate,
                                             std::shared_ptr<const std::atomic_bool> skip);

    // Any thread; applies from the next recognition on.
    void setRecognitionOptions(const RecognitionOptions &options);
    // Any thread; applies from the next load on (load the model again to switch).
    void setDevicePreference(SpeechDevicePreference preference, int gpuIndex = -1);
    RecognitionOptions recognitionOptions() const;

    // How many tokens of prompt the loaded model reads (half its text
    // context), and how many `text` takes; both -1 without a model.
    struct PromptFit {
        int tokens = -1;
        int limit = -1;
    };
    QFuture<PromptFit> measurePrompt(const QString &text);

    // "cpu" or the GPU's name; "" before the first load. Any thread.
    QString deviceName() const;
    bool usesGpu() const;

    // Recognition threads for a machine with this many processors: two are
    // left free, never fewer than 2 nor more than 8 are used.
    static int threadCountFor(int processorCount);
    static int activeProcessorCount();
    // Concatenates segment texts as the library returns them (UTF-8, each with
    // its own leading space) and trims the result.
    static QString joinSegments(const QList<QByteArray> &segments);

private:
    // `owner` keeps `samples` alive until the work item has run.
    QFuture<AccurateSpeechResult> enqueue(std::shared_ptr<const void> owner, const float *samples, qsizetype count,
                                          int sampleRate, std::shared_ptr<const std::atomic_bool> skip = {});
    // On the queue only.
    whisper_context *initContext(const QByteArray &path, bool useGpu, int gpuIndex);
    // `abandon`, when given and set, ends a run under way inside the back-end's
    // graph computation (the CPU checks after every node), so an abandoned
    // recognition lets go of the processor within a few milliseconds; whisper
    // then returns non-zero. An installed whisper.cpp without our build's
    // patch only checks between the encoder and the decoder steps.
    int runFull(const float *samples, int count, const std::atomic_bool *abandon = nullptr);
    bool fallBackToCpu(const QString &why);
    bool isNoSpeechSegment(int segment) const;
    void setDevice(const QString &name, bool gpu);
    void log(const QString &message) const;
    // Runs `work` on the engine's thread after everything posted before it.
    void post(std::function<void()> work);

    SpeechDevicePreference m_preference; // guarded by m_optionsMutex, like m_gpuIndex
    int m_gpuIndex = -1;
    mutable std::mutex m_optionsMutex;
    RecognitionOptions m_options;
    QString m_lastLanguage; // only touched on m_queue
    QString m_toldOptions;  // the options line last logged; only touched on m_queue
    LogSink m_log;
    DeviceLister m_devices;
    QByteArray m_modelPath;                // only touched on m_queue
    whisper_context *m_context = nullptr; // only touched on m_queue
    mutable std::mutex m_deviceMutex;
    QString m_deviceName;
    bool m_onGpu = false;
    QThreadPool m_queue;                  // declared last: drained before the context is freed
};

} // namespace dictora
