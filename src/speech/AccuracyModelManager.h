#pragma once

#include "speech/AccuracyModelContract.h"
#include "speech/AccuracyModelPhase.h"
#include "speech/AccurateSpeechEngine.h"
#include "speech/StreamingModelDownloader.h"
#include "speech/VoiceActivity.h"

#include <QFuture>
#include <QObject>
#include <QThreadPool>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

namespace dictora {

class RuntimeLog;

// Makes sure the one model file is present, byte-exact and loaded before
// anything is recognised: checks an installed copy, else copies a development
// copy or downloads it, verifies size then SHA-256, loads it, and retries by
// itself with growing pauses. Lives on the main thread; hashing and copying run
// on a private pool, the download on its own thread, loading on the engine's queue.
class AccuracyModelManager : public QObject {
    Q_OBJECT

public:
    static constexpr int kIntegrityFailuresBeforeAttention = 3;
    static constexpr auto kNeedsAttentionMessage =
        "The downloaded file failed verification three times. Check your connection, then retry.";

    struct Options {
        AccuracyModelContract contract = AccuracyModelContract::product();
        QString installedPath;       // empty: contract.installedPath()
        QString developmentCopyPath; // empty: contract.developmentCopyPath()
        // Pauses between attempts double from the first up to the maximum.
        std::chrono::milliseconds firstPause{2000};
        std::chrono::milliseconds maximumPause{30000};
        StreamingModelDownloader::TimeLimits downloadLimits;
        // DICTORA_SPEECH_DEVICE, when set, wins over this.
        SpeechDevicePreference devicePreference = SpeechDevicePreference::automatic;
        // What the log calls the file.
        QString logName = QStringLiteral("accuracy model");
        // Loads a verified file; unset: the speech engine loads it.
        std::function<QFuture<void>(const QString &path)> loader;
        // The voice-activity model, prepared beside this one when set.
        std::optional<AccuracyModelContract> voiceActivity;
    };

    // The contract of the environment (DICTORA_MODEL_CONTRACT) or the product's;
    // throws AccuracyModelContractError for a malformed contract file.
    explicit AccuracyModelManager(RuntimeLog *log = nullptr, QObject *parent = nullptr);
    AccuracyModelManager(Options options, RuntimeLog *log, QObject *parent = nullptr);
    ~AccuracyModelManager() override;

    AccuracyModelPhase phase() const { return m_phase; }
    double progress() const { return m_progress; }
    qint64 downloadedBytes() const { return m_downloadedBytes; }
    bool isPreparing() const { return m_preparing; }
    AccurateSpeechEngine &engine() { return *m_engine; }
    // The voice-activity model's path once verified and loadable, else empty.
    std::shared_ptr<const VoiceActivityModelPath> voiceActivityModel() const { return m_voiceActivityPath; }
    const AccuracyModelContract &contract() const { return m_options.contract; }
    QString installedPath() const { return m_options.installedPath; }
    QString partialPath() const;

    // Starts preparing unless a preparation runs or the model is ready.
    void startAutomatically();
    // After needsAttention (or any time nothing runs): start over.
    void retryManually();
    // A model was put in place from outside (`dictora model install`): drop a
    // running download or pause and start over from the installed file.
    void adoptInstalledModel();
    // Recognises 16 kHz mono samples with the loaded model.
    QFuture<AccurateSpeechResult> transcribe(const QList<float> &samples);
    QFuture<AccurateSpeechResult> transcribe(std::vector<float> samples); // moved, not copied

Q_SIGNALS:
    void phaseChanged(const dictora::AccuracyModelPhase &phase);
    void progressChanged(double progress);
    void downloadedBytesChanged(qint64 bytes);

private:
    void prepareUntilReady();
    void prepareOnce();
    void checkDevelopmentCopy();
    void downloadModel();
    void installPartial();
    void loadInstalled();
    void attemptFailed(std::exception_ptr error);
    void abandonAttempt();

    void setPhase(const AccuracyModelPhase &phase);
    void setProgress(double progress);
    void setDownloadedBytes(qint64 bytes);
    void log(const QString &message) const;

    // Runs `work` on the pool and `done` on this thread with its result.
    void inBackground(std::function<bool()> work, std::function<void(bool)> done);

    Options m_options;
    RuntimeLog *m_log;
    std::unique_ptr<AccurateSpeechEngine> m_engine;
    std::shared_ptr<VoiceActivityModelPath> m_voiceActivityPath = std::make_shared<VoiceActivityModelPath>();
    std::unique_ptr<AccuracyModelManager> m_voiceActivity;
    std::unique_ptr<StreamingModelDownloader> m_downloader;
    QThreadPool m_pool;
    std::shared_ptr<std::atomic_bool> m_cancel = std::make_shared<std::atomic_bool>(false);
    QTimer m_retryTimer;

    AccuracyModelPhase m_phase = AccuracyModelPhase::checking();
    double m_progress = 0;
    qint64 m_downloadedBytes = 0;
    bool m_preparing = false;
    std::chrono::milliseconds m_pause{0};
    int m_integrityFailures = 0;
    quint64 m_attempt = 0; // ignores progress posted by an earlier attempt

    // Progress arrives per chunk on the download thread; at most one post is in flight.
    std::shared_ptr<std::atomic<qint64>> m_pendingBytes = std::make_shared<std::atomic<qint64>>(0);
    std::shared_ptr<std::atomic_bool> m_progressPosted = std::make_shared<std::atomic_bool>(false);
};

} // namespace dictora
