#include "speech/AccuracyModelManager.h"

#include "core/Async.h"
#include "core/RuntimeLog.h"
#include "speech/AccuracyModelError.h"
#include "speech/ModelVerifier.h"
#include "speech/VoiceActivity.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPromise>

namespace dictora {

namespace {

bool isIntegrityMismatch(std::exception_ptr error)
{
    try {
        std::rethrow_exception(error);
    } catch (const AccuracyModelError &e) {
        return e.errorCase() == AccuracyModelError::Case::integrityMismatch;
    } catch (...) {
    }
    return false;
}

Error fileError(const QString &what, const QString &path, const QString &why)
{
    return Error(QStringLiteral("Could not %1 %2: %3").arg(what, path, why));
}

} // namespace

namespace {

AccuracyModelManager::Options optionsFromEnvironment()
{
    AccuracyModelManager::Options options;
    options.contract = AccuracyModelContract::current();
    return options;
}

} // namespace

AccuracyModelManager::AccuracyModelManager(RuntimeLog *log, QObject *parent)
    : AccuracyModelManager(optionsFromEnvironment(), log, parent)
{
}

AccuracyModelManager::AccuracyModelManager(Options options, RuntimeLog *log, QObject *parent)
    : QObject(parent), m_options(std::move(options)), m_log(log)
{
    if (!m_options.loader) {
        m_engine = std::make_unique<AccurateSpeechEngine>(
            speechDevicePreferenceFromEnvironment(m_options.devicePreference), [log](const QString &message) {
                if (log)
                    log->write(message); // RuntimeLog is safe from the engine's thread
            });
    }
    if (m_options.installedPath.isEmpty())
        m_options.installedPath = m_options.contract.installedPath();
    if (m_options.developmentCopyPath.isEmpty())
        m_options.developmentCopyPath = m_options.contract.developmentCopyPath();
    m_pool.setMaxThreadCount(1);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &AccuracyModelManager::prepareOnce);

    if (m_options.voiceActivity) {
        // The detector's file follows the same fetch, verify and retry rules,
        // but nothing waits for it: until it is in place, whole recordings go
        // to the recogniser.
        Options detector;
        detector.contract = *m_options.voiceActivity;
        detector.firstPause = m_options.firstPause;
        detector.maximumPause = m_options.maximumPause;
        detector.downloadLimits = m_options.downloadLimits;
        detector.logName = QStringLiteral("voice activity model");
        detector.loader = [holder = m_voiceActivityPath](const QString &path) {
            if (!VoiceActivityDetector::open(path))
                return QtFuture::makeExceptionalFuture<void>(
                    std::make_exception_ptr(Error(QStringLiteral("%1 is not a voice activity model").arg(path))));
            holder->set(path);
            return QtFuture::makeReadyFuture();
        };
        m_voiceActivity = std::make_unique<AccuracyModelManager>(std::move(detector), log);
    }
}

AccuracyModelManager::~AccuracyModelManager()
{
    m_cancel->store(true);
    m_retryTimer.stop();
    m_downloader.reset();
    m_pool.waitForDone();
}

QString AccuracyModelManager::partialPath() const
{
    return QFileInfo(m_options.installedPath).dir().filePath(m_options.contract.partialFileName());
}

void AccuracyModelManager::startAutomatically()
{
    if (m_voiceActivity)
        m_voiceActivity->startAutomatically();
    if (m_preparing || m_phase.isReady())
        return;
    prepareUntilReady();
}

void AccuracyModelManager::retryManually()
{
    if (m_preparing)
        return;
    setPhase(AccuracyModelPhase::checking());
    prepareUntilReady();
}

void AccuracyModelManager::adoptInstalledModel()
{
    if (m_voiceActivity)
        m_voiceActivity->adoptInstalledModel();
    const auto kind = m_phase.kind();
    if (kind == AccuracyModelPhase::Kind::ready || kind == AccuracyModelPhase::Kind::loading)
        return; // a verified file is already loaded or loading
    log((m_options.logName + QStringLiteral(" installed from outside; checking it path=%1")).arg(m_options.installedPath));
    abandonAttempt();
    prepareUntilReady();
}

void AccuracyModelManager::abandonAttempt()
{
    // Work already queued holds the old flag and finds it set.
    m_cancel->store(true);
    m_cancel = std::make_shared<std::atomic_bool>(false);
    m_retryTimer.stop();
    // The phase leaves downloading as the transfer's answer arrives, so a
    // transfer is under way exactly while it says so.
    if (m_phase.kind() == AccuracyModelPhase::Kind::downloading) {
        // The next transfer starts behind this cancel on the downloader's
        // thread; the half-written file goes either way.
        m_downloader->cancel();
        QFile::remove(partialPath());
    }
}

QFuture<AccurateSpeechResult> AccuracyModelManager::transcribe(const QList<float> &samples)
{
    return m_engine->transcribe(samples, AccurateSpeechEngine::kSampleRate);
}

QFuture<AccurateSpeechResult> AccuracyModelManager::transcribe(std::vector<float> samples)
{
    return m_engine->transcribe(std::move(samples), AccurateSpeechEngine::kSampleRate);
}

void AccuracyModelManager::prepareUntilReady()
{
    m_preparing = true;
    m_pause = m_options.firstPause;
    m_integrityFailures = 0;
    prepareOnce();
}

void AccuracyModelManager::prepareOnce()
{
    ++m_attempt;
    setPhase(AccuracyModelPhase::checking());
    setProgress(0);
    setDownloadedBytes(0);

    const QString folder = QFileInfo(m_options.installedPath).absolutePath();
    if (!QDir().mkpath(folder)) {
        attemptFailed(std::make_exception_ptr(fileError(QStringLiteral("create the folder"), folder,
            QStringLiteral("permission denied or no space left"))));
        return;
    }
    if (!QFileInfo::exists(m_options.installedPath)) {
        checkDevelopmentCopy();
        return;
    }
    setPhase(AccuracyModelPhase::verifying());
    const QString path = m_options.installedPath;
    const AccuracyModelContract contract = m_options.contract;
    inBackground([path, contract, cancel = m_cancel] { return ModelVerifier::isValidModel(path, contract, cancel.get()); },
        [this](bool valid) {
            if (valid) {
                loadInstalled();
                return;
            }
            log((m_options.logName + QStringLiteral(" failed verification; removing path=%1")).arg(m_options.installedPath));
            QFile file(m_options.installedPath);
            if (!file.remove()) {
                attemptFailed(std::make_exception_ptr(
                    fileError(QStringLiteral("remove"), m_options.installedPath, file.errorString())));
                return;
            }
            checkDevelopmentCopy();
        });
}

void AccuracyModelManager::checkDevelopmentCopy()
{
    const QFileInfo development(m_options.developmentCopyPath);
    if (!development.isFile() || development.size() != m_options.contract.bytes) {
        downloadModel();
        return;
    }
    setPhase(AccuracyModelPhase::copyingBundledDevelopmentAsset());
    setDownloadedBytes(0);
    log(QStringLiteral("copying development model path=%1").arg(development.filePath()));
    const QString source = development.filePath();
    const QString target = m_options.installedPath;
    auto failure = std::make_shared<QString>();
    inBackground(
        [source, target, failure] {
            QFile::remove(target);
            QFile file(source);
            if (file.copy(target))
                return true;
            *failure = file.errorString();
            return false;
        },
        [this, source, target, failure](bool copied) {
            if (!copied) {
                attemptFailed(std::make_exception_ptr(fileError(QStringLiteral("copy"), source, *failure)));
                return;
            }
            setProgress(1);
            setPhase(AccuracyModelPhase::verifying());
            const AccuracyModelContract contract = m_options.contract;
            inBackground(
                [target, contract, cancel = m_cancel] { return ModelVerifier::isValidModel(target, contract, cancel.get()); },
                [this, target](bool valid) {
                    if (valid) {
                        loadInstalled();
                        return;
                    }
                    QFile::remove(target); // a bad copy must not pass as installed next time
                    attemptFailed(std::make_exception_ptr(AccuracyModelError::integrityMismatch()));
                });
        });
}

void AccuracyModelManager::downloadModel()
{
    setPhase(AccuracyModelPhase::downloading());
    log((m_options.logName + QStringLiteral(" download started url=%1")).arg(m_options.contract.url.toString()));

    const quint64 attempt = m_attempt;
    const double total = double(m_options.contract.bytes);
    QPointer<AccuracyModelManager> self(this);
    auto pending = m_pendingBytes;
    auto posted = m_progressPosted;
    pending->store(0);
    posted->store(false);
    auto progress = [self, attempt, total, pending, posted](qint64 received, qint64) {
        pending->store(received);
        if (posted->exchange(true))
            return;
        QMetaObject::invokeMethod(
            self.data(),
            [self, attempt, total, pending, posted] {
                posted->store(false);
                if (!self || self->m_attempt != attempt || self->m_phase.kind() != AccuracyModelPhase::Kind::downloading)
                    return;
                const qint64 bytes = pending->load();
                self->setDownloadedBytes(bytes);
                self->setProgress(total > 0 ? std::min(1.0, double(bytes) / total) : 0.0);
            },
            Qt::QueuedConnection);
    };
    // One downloader, and its thread, for every attempt: made at the first.
    if (!m_downloader)
        m_downloader = std::make_unique<StreamingModelDownloader>(
            partialPath(), m_options.contract.bytes, StreamingModelDownloader::Progress{}, m_options.downloadLimits);
    const QFuture<void> transfer = m_downloader->download(m_options.contract.url, std::move(progress));
    whenReady(transfer, this, [this, total, pending, cancel = m_cancel](QFuture<void> future) {
        if (cancel->load())
            return; // abandoned
        try {
            future.waitForFinished();
        } catch (...) {
            attemptFailed(std::current_exception());
            return;
        }
        const qint64 bytes = pending->load();
        setDownloadedBytes(bytes);
        setProgress(total > 0 ? std::min(1.0, double(bytes) / total) : 0.0);
        installPartial();
    });
}

void AccuracyModelManager::installPartial()
{
    setPhase(AccuracyModelPhase::verifying());
    const QString partial = partialPath();
    const AccuracyModelContract contract = m_options.contract;
    inBackground([partial, contract, cancel = m_cancel] { return ModelVerifier::isValidModel(partial, contract, cancel.get()); },
        [this, partial](bool valid) {
            if (!valid) {
                QFile::remove(partial);
                attemptFailed(std::make_exception_ptr(AccuracyModelError::integrityMismatch()));
                return;
            }
            QFile::remove(m_options.installedPath);
            QFile file(partial);
            if (!file.rename(m_options.installedPath)) {
                attemptFailed(std::make_exception_ptr(fileError(QStringLiteral("move"), partial, file.errorString())));
                return;
            }
            loadInstalled();
        });
}

void AccuracyModelManager::loadInstalled()
{
    setPhase(AccuracyModelPhase::loading());
    const QFuture<void> loaded =
        m_options.loader ? m_options.loader(m_options.installedPath) : m_engine->load(m_options.installedPath);
    whenReady(loaded, this, [this, cancel = m_cancel](QFuture<void> future) {
        if (cancel->load())
            return;
        try {
            future.waitForFinished();
        } catch (...) {
            attemptFailed(std::current_exception());
            return;
        }
        m_preparing = false;
        m_integrityFailures = 0;
        log((m_options.logName + QStringLiteral(" ready path=%1")).arg(m_options.installedPath));
        setPhase(AccuracyModelPhase::ready());
    });
}

void AccuracyModelManager::attemptFailed(std::exception_ptr error)
{
    const QString description = errorMessage(error);
    log((m_options.logName + QStringLiteral(" preparation failed error=%1")).arg(description));
    if (isIntegrityMismatch(error)) {
        if (++m_integrityFailures >= kIntegrityFailuresBeforeAttention) {
            m_preparing = false;
            setPhase(AccuracyModelPhase::needsAttention(QString::fromUtf8(kNeedsAttentionMessage)));
            return;
        }
    } else {
        m_integrityFailures = 0;
    }
    setPhase(AccuracyModelPhase::retrying(description));
    m_retryTimer.start(m_pause);
    m_pause = std::min(m_pause * 2, m_options.maximumPause);
}

void AccuracyModelManager::setPhase(const AccuracyModelPhase &phase)
{
    if (m_phase == phase)
        return;
    m_phase = phase;
    Q_EMIT phaseChanged(phase);
}

void AccuracyModelManager::setProgress(double progress)
{
    if (m_progress == progress)
        return;
    m_progress = progress;
    Q_EMIT progressChanged(progress);
}

void AccuracyModelManager::setDownloadedBytes(qint64 bytes)
{
    if (m_downloadedBytes == bytes)
        return;
    m_downloadedBytes = bytes;
    Q_EMIT downloadedBytesChanged(bytes);
}

void AccuracyModelManager::log(const QString &message) const
{
    if (m_log)
        m_log->write(message);
}

void AccuracyModelManager::inBackground(std::function<bool()> work, std::function<void(bool)> done)
{
    // The manager's own pool, so that its destructor can wait for the file work.
    runElsewhere(&m_pool, this, std::move(work), [done = std::move(done), cancel = m_cancel](bool result) {
        if (!cancel->load())
            done(result);
    });
}

} // namespace dictora
