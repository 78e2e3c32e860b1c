#include "core/session/DictoraController.h"

#include "core/Background.h"
#include "shortcut/GlobalShortcut.h"
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace dictora {

namespace {

// Whole milliseconds between two instants, truncated, never negative.
qint64 millisecondsBetween(const QDateTime &from, const QDateTime &to)
{
    const qint64 ms = from.msecsTo(to);
    return ms < 0 ? 0 : ms;
}

QString shortcutText(const GlobalShortcut &shortcut)
{
    return shortcut.modifiers.displayPrefix() + shortcut.keyLabel;
}

constexpr float kMeterActivityThreshold = 0.05f;
constexpr size_t kMinimumSamples = 1600; // 0.1 s at 16 kHz
constexpr float kMinimumRms = 0.0015f;

} // namespace

DictoraController::DictoraController(DictoraState &state, ProductPreferences &preferences,
    Collaborators collaborators, QObject *parent)
    : QObject(parent)
    , m_state(state)
    , m_preferences(preferences)
    , m_c(std::move(collaborators))
    , m_onboarding(!preferences.hasCompletedOnboarding())
    , m_gesture(state, [&preferences] { return preferences.holdToTalk(); })
{
    m_permissionRetryTimer.setInterval(m_c.shortcutRetryMs);
    connect(&m_permissionRetryTimer, &QTimer::timeout, this, &DictoraController::installCurrentShortcutSilently);

    m_onboardingPermissionTimer.setInterval(m_c.permissionPollMs);
    connect(&m_onboardingPermissionTimer, &QTimer::timeout, this, [this] {
        if (!m_onboarding.isPresented())
            return;
        refreshOnboardingPermissionStatus();
        if (m_onboarding.permissions().bothAuthorized()) {
            installCurrentShortcutSilently();
            m_onboardingPermissionTimer.stop();
        }
    });

    m_listeningDots.setInterval(m_c.listeningDotMs);
    m_listeningDots.setTimerType(Qt::PreciseTimer);
    connect(&m_listeningDots, &QTimer::timeout, this, [this] {
        const auto kind = m_state.phase().kind();
        if (kind != DictoraPhase::Kind::preparing && kind != DictoraPhase::Kind::recording) {
            m_listeningDots.stop();
            return;
        }
        m_state.setListeningDotPhase((m_state.listeningDotPhase() + 1) % 3);
    });

    // Key down toggles; with hold to talk, a long hold's key up toggles back.
    connect(&m_c.shortcut, &ShortcutBackend::pressed, &m_gesture, &ShortcutGesture::press);
    connect(&m_c.shortcut, &ShortcutBackend::released, &m_gesture, &ShortcutGesture::release);
    connect(&m_gesture, &ShortcutGesture::toggleRequested, this, &DictoraController::toggleRecording);
    // A binding confirmed (or refused) in the desktop's dialog: try again now, not at the next retry tick.
    connect(&m_c.shortcut, &ShortcutBackend::installationChanged, this, &DictoraController::installCurrentShortcutSilently);
}

DictoraController::~DictoraController() = default;

void DictoraController::start()
{
    connect(&m_c.speech, &SpeechPort::readyChanged, this, [this](bool ready) {
        m_onboarding.setAccuracyModelReady(ready);
        if (ready) {
            log(QStringLiteral("mandatory accuracy model loaded and ready"));
            m_onboarding.showPracticeWhenReady();
        }
    });
    m_onboarding.setAccuracyModelReady(m_c.speech.isReady());
    m_c.speech.startAutomatically();

    try {
        m_c.journal.prepare();
    } catch (const Error &e) {
        m_state.setPhase(DictoraPhase::error(QStringLiteral("State journal unavailable")));
        log(QStringLiteral("journal prepare failed error=") + e.description());
    }

    if (m_c.views.repositionOverlay)
        m_c.views.repositionOverlay(m_preferences.microphoneLocation());
    if (m_c.views.showOverlay)
        m_c.views.showOverlay();
    installCurrentShortcutSilently();
    log(QStringLiteral("app started dataDirectory=") + m_c.dataDirectory);
    if (m_c.views.showMainWindow)
        m_c.views.showMainWindow();

    if (m_onboarding.isPresented()) {
        QTimer::singleShot(m_c.onboardingDelayMs, this, [this] {
            startOnboardingPermissionPolling();
            refreshOnboardingPermissionStatus();
            requestNextOnboardingPermissionIfNeeded();
        });
    }
}

void DictoraController::toggleRecording()
{
    if (m_operationInFlight)
        return;
    if (m_c.views.repositionOverlay)
        m_c.views.repositionOverlay(m_preferences.microphoneLocation());
    switch (m_state.phase().kind()) {
    case DictoraPhase::Kind::idle:
    case DictoraPhase::Kind::error:
        beginRecording();
        break;
    case DictoraPhase::Kind::recording:
        stopAndPaste();
        break;
    case DictoraPhase::Kind::preparing:
    case DictoraPhase::Kind::finalizing:
        break;
    case DictoraPhase::Kind::needsAccessibility:
        installCurrentShortcutSilently();
        break;
    }
}

bool DictoraController::isPracticing() const
{
    return m_onboarding.isPresented() && m_onboarding.stage() == OnboardingStage::practice;
}

void DictoraController::beginRecording()
{
    if (!m_c.speech.isReady()) {
        m_c.speech.startAutomatically();
        m_state.setPhase(DictoraPhase::error(QStringLiteral("The accuracy model is finishing automatically")));
        log(QStringLiteral("recording blocked because mandatory accuracy model is not ready"));
        return;
    }
    m_operationInFlight = true;
    m_state.setPhase(DictoraPhase::preparing());
    m_state.setMeterLevels(AudioMeterLevels::zero());
    startListeningDots();
    m_meterActivityLogged = false;

    MicrophonePort *microphone = &m_c.microphone;
    runInBackground(this, [microphone] { return microphone->requestPermission(); },
        [this](bool permitted) { captureStarted(permitted); });
}

void DictoraController::captureStarted(bool permitted)
{
    if (!permitted) {
        m_state.setPhase(DictoraPhase::error(QStringLiteral("Allow Microphone")));
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("microphone permission denied"));
        m_operationInFlight = false;
        return;
    }
    m_target = isPracticing() ? std::nullopt : m_c.paster.captureTarget();
    const QUuid sessionID = QUuid::createUuid();
    const QDateTime startedAt = QDateTime::currentDateTimeUtc();
    QPointer<DictoraController> self(this);
    try {
        m_c.microphone.start([self](AudioMeterLevels levels) {
            if (!self || !self->m_state.phase().is(DictoraPhase::Kind::recording))
                return;
            self->m_state.setMeterLevels(levels);
            if (!self->m_meterActivityLogged && levels.maximum() > kMeterActivityThreshold) {
                self->m_meterActivityLogged = true;
                self->log(QStringLiteral("pcm meter active"));
            }
        });
    } catch (const std::exception &e) {
        const QString description = dynamic_cast<const Error *>(&e) ? static_cast<const Error &>(e).description()
                                                                     : QString::fromUtf8(e.what());
        m_c.microphone.cancel();
        m_state.setPhase(DictoraPhase::error(description));
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("recording start failed error=") + description);
        m_operationInFlight = false;
        return;
    }
    m_recordingStartedAt = startedAt;
    m_recordingSessionID = sessionID;
    m_state.setPhase(DictoraPhase::recording());
    log(QStringLiteral("recording started session=") + uuidString(sessionID) + QStringLiteral(" target=")
        + (m_target ? m_target->application.name : QStringLiteral("none")));
    m_operationInFlight = false;
}

void DictoraController::stopAndPaste()
{
    m_operationInFlight = true;
    m_state.setPhase(DictoraPhase::finalizing());
    m_state.setMeterLevels(AudioMeterLevels::zero());
    stopListeningDots();
    log(QStringLiteral("stop key accepted; finalizing speech"));

    m_endedAt = QDateTime::currentDateTimeUtc();
    m_startedAt = m_recordingStartedAt.value_or(m_endedAt);
    m_sessionID = m_recordingSessionID.value_or(QUuid::createUuid());

    const QDateTime beforeStop = QDateTime::currentDateTimeUtc();
    MicrophonePort::Captured captured = m_c.microphone.stop();
    const qint64 captureStopMs = millisecondsBetween(beforeStop, QDateTime::currentDateTimeUtc());

    if (captured.samples.size() < kMinimumSamples || captured.rmsLevel < kMinimumRms) {
        log(QStringLiteral("accurate local transcription skipped for silence"));
        finishWithText(QString(), 0, captureStopMs);
        return;
    }
    QPointer<DictoraController> self(this);
    m_c.speech.transcribe(std::move(captured.samples),
        [self, captureStopMs](std::optional<SpeechPort::Result> result, QString error) {
            if (!self)
                return;
            if (!result) {
                self->failDictation(error);
                return;
            }
            self->finishWithText(result->text, result->durationMilliseconds, captureStopMs);
        });
}

void DictoraController::finishWithText(const QString &raw, qint64 engineMs, qint64 captureStopMs)
{
    QString text = BasicFormatter::formatTranscript(raw, m_preferences.formattingEnabled());
    if (m_preferences.snippetsEnabled())
        text = SnippetExpander::apply(text, m_c.snippets.entries());
    log(QStringLiteral("accurate local finalization returned rawChars=%1 formattedChars=%2")
            .arg(raw.size())
            .arg(text.size()));

    const bool practice = isPracticing();
    TranscriptOutcome outcome;
    std::optional<QString> error;
    qint64 pasteMs = 0;
    if (text.isEmpty()) {
        outcome = TranscriptOutcome::empty;
    } else if (practice) {
        outcome = TranscriptOutcome::practice;
    } else if (!m_target) {
        outcome = TranscriptOutcome::failed;
        error = QString::fromLatin1(kNoTargetMessage);
    } else {
        pasteMs = m_c.paster.paste(text, *m_target);
        outcome = TranscriptOutcome::pasted;
    }
    m_state.setLastTranscript(text);

    TranscriptRecord record = sessionRecord(outcome);
    record.transcript = text;
    record.finalizationDurationMilliseconds = captureStopMs + engineMs;
    record.pasteDispatchDurationMilliseconds = pasteMs;
    record.error = error;
    record.earsDurationMilliseconds = engineMs;

    log(QStringLiteral("journal append begin"));
    appendInBackground(record, [this, record, text, practice](std::optional<QString> appendError) {
        if (appendError) {
            failDictation(*appendError);
            return;
        }
        log(QStringLiteral("journal append complete"));
        if (m_c.views.refreshHistoryIfVisible)
            m_c.views.refreshHistoryIfVisible();
        if (!text.isEmpty() && practice) {
            m_onboarding.completePractice(text, record.savedAt);
            log(QStringLiteral("onboarding practice completed chars=%1").arg(text.size()));
        }
        m_state.setPhase(DictoraPhase::idle());
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("overlay returned to idle"));
        log(QStringLiteral("recording completed outcome=%1 chars=%2 finalizeMs=%3")
                .arg(rawValue(record.outcome))
                .arg(text.size())
                .arg(record.finalizationDurationMilliseconds));
        resetSession();
        Q_EMIT dictationFinished();
    });
}

void DictoraController::failDictation(const QString &error)
{
    m_c.microphone.cancel();
    TranscriptRecord record = sessionRecord(TranscriptOutcome::failed);
    record.finalizationDurationMilliseconds = millisecondsBetween(m_endedAt, record.savedAt);
    record.error = error;
    appendInBackground(record, [this, error](std::optional<QString> appendError) {
        if (!appendError)
            log(QStringLiteral("failed recording archived without transcript"));
        else
            log(QStringLiteral("failed recording archive unavailable error=") + *appendError);
        m_state.setPhase(DictoraPhase::error(error));
        m_state.setMeterLevels(AudioMeterLevels::zero());
        stopListeningDots();
        log(QStringLiteral("recording finalization failed error=") + error);
        resetSession();
        Q_EMIT dictationFinished();
    });
}

TranscriptRecord DictoraController::sessionRecord(TranscriptOutcome outcome) const
{
    TranscriptRecord record;
    record.id = m_sessionID;
    record.recordingStartedAt = m_startedAt;
    record.recordingEndedAt = m_endedAt;
    record.savedAt = QDateTime::currentDateTimeUtc();
    if (m_target)
        record.targetApplication = m_target->application;
    record.recordingDurationMilliseconds = millisecondsBetween(m_startedAt, m_endedAt);
    record.totalDurationMilliseconds = millisecondsBetween(m_startedAt, record.savedAt);
    record.outcome = outcome;
    record.transcriptionEngine = QString::fromLatin1(kEngineIdentifier);
    return record;
}

void DictoraController::appendInBackground(TranscriptRecord record, AppendDone done)
{
    // The append waits for the disk (fsync); the main thread must not.
    runInBackground(this,
        [journal = m_c.journal, record = std::move(record)]() -> std::optional<QString> {
            try {
                journal.append(record);
                return std::nullopt;
            } catch (const Error &e) {
                return e.description();
            }
        },
        std::move(done));
}

void DictoraController::resetSession()
{
    m_recordingStartedAt.reset();
    m_recordingSessionID.reset();
    m_target.reset();
    m_operationInFlight = false;
}

void DictoraController::startListeningDots()
{
    m_listeningDots.stop();
    m_state.setListeningDotPhase(0);
    m_listeningDots.start();
}

void DictoraController::stopListeningDots()
{
    m_listeningDots.stop();
    m_state.setListeningDotPhase(0);
}

void DictoraController::installCurrentShortcutSilently()
{
    refreshOnboardingPermissionStatus();
    const GlobalShortcut candidate = m_pendingShortcutUpdate.value_or(m_preferences.keyboardShortcut());
    const bool ok = m_c.shortcut.install(candidate) && m_c.shortcut.verifyInstalled(candidate);
    if (ok) {
        m_permissionRetryTimer.stop();
        if (m_pendingShortcutUpdate && *m_pendingShortcutUpdate == candidate) {
            m_preferences.setKeyboardShortcut(candidate);
            m_pendingShortcutUpdate.reset();
            log(QStringLiteral("global shortcut update completed shortcut=") + shortcutText(candidate));
        }
        if (m_state.phase().is(DictoraPhase::Kind::needsAccessibility))
            m_state.setPhase(DictoraPhase::idle());
        m_loggedAccessibilityWait = false;
        log(QStringLiteral("global shortcut event tap installed shortcut=") + shortcutText(candidate));
        m_onboarding.showPracticeWhenReady();
        return;
    }
    m_state.setPhase(DictoraPhase::needsAccessibility());
    if (!m_loggedAccessibilityWait) {
        m_loggedAccessibilityWait = true;
        log(QStringLiteral("waiting for Accessibility permission reason=") + m_c.shortcut.failureReason());
    }
    if (!m_permissionRetryTimer.isActive())
        m_permissionRetryTimer.start();
}

ShortcutUpdateResult DictoraController::updateKeyboardShortcut(const GlobalShortcut &candidate)
{
    const GlobalShortcutValidation validation = GlobalShortcutValidator::validate(candidate);
    if (!validation.valid) {
        const QString message = validation.message.isEmpty()
            ? QStringLiteral("Choose a different keyboard shortcut.")
            : validation.message;
        return ShortcutUpdateResult::failed(message);
    }
    // On X11 "trusted" means the shortcut can be grabbed at all; a refused grab is a
    // plain failure below, with the previous shortcut restored.
    if (!m_c.permissions.accessibility(nullptr).authorized) {
        m_pendingShortcutUpdate = candidate;
        m_state.setPhase(DictoraPhase::needsAccessibility());
        installCurrentShortcutSilently();
        return ShortcutUpdateResult::needsAccessibility();
    }
    const GlobalShortcut previous = m_preferences.keyboardShortcut();
    if (m_c.shortcut.install(candidate) && m_c.shortcut.verifyInstalled(candidate)) {
        m_preferences.setKeyboardShortcut(candidate);
        m_pendingShortcutUpdate.reset();
        if (m_state.phase().is(DictoraPhase::Kind::needsAccessibility))
            m_state.setPhase(DictoraPhase::idle());
        log(QStringLiteral("global shortcut updated shortcut=") + shortcutText(candidate));
        return ShortcutUpdateResult::updated();
    }
    m_c.shortcut.install(previous);
    log(QStringLiteral("global shortcut update rolled back candidate=") + shortcutText(candidate));
    return ShortcutUpdateResult::failed(
        QStringLiteral("That shortcut could not be activated. Your previous shortcut still works."));
}

void DictoraController::refreshOnboardingPermissionStatus()
{
    const PermissionCheck accessibility = m_c.permissions.accessibility(&m_c.shortcut);
    m_onboarding.setPermissions({m_c.microphone.status(),
        accessibility.authorized ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied});
}

void DictoraController::requestNextOnboardingPermissionIfNeeded()
{
    if (!m_onboarding.isPresented())
        return;
    refreshOnboardingPermissionStatus();
    if (m_onboarding.permissions().microphone == OnboardingPermissionStatus::notDetermined) {
        m_onboarding.setRequestingPermissions(true);
        MicrophonePort *microphone = &m_c.microphone;
        runInBackground(this, [microphone] { return microphone->requestPermission(); }, [this](bool) {
            m_onboarding.setRequestingPermissions(false);
            refreshOnboardingPermissionStatus();
            if (m_onboarding.permissions().microphone == OnboardingPermissionStatus::authorized)
                installCurrentShortcutSilently();
        });
        return;
    }
    if (m_onboarding.permissions().microphone == OnboardingPermissionStatus::authorized)
        installCurrentShortcutSilently();
}

void DictoraController::requestOnboardingMicrophonePermission()
{
    m_onboarding.setRequestingPermissions(true);
    const OnboardingPermissionStatus status = m_c.microphone.status();
    if (status == OnboardingPermissionStatus::denied && m_c.views.openSettings)
        m_c.views.openSettings(QStringLiteral("microphone"));
    MicrophonePort *microphone = &m_c.microphone;
    runInBackground(this, [microphone] { return microphone->requestPermission(); }, [this](bool) {
        m_onboarding.setRequestingPermissions(false);
        refreshOnboardingPermissionStatus();
        requestNextOnboardingPermissionIfNeeded();
    });
}

void DictoraController::continueAccessibility()
{
    // Nothing to grant on X11: another try at the grab is the whole step.
    installCurrentShortcutSilently();
}

void DictoraController::startOnboardingPermissionPolling()
{
    if (!m_onboardingPermissionTimer.isActive())
        m_onboardingPermissionTimer.start();
}

void DictoraController::finishOnboarding()
{
    if (m_onboarding.stage() != OnboardingStage::ready || !m_c.speech.isReady())
        return;
    m_onboardingPermissionTimer.stop();
    m_onboarding.setPresented(false);
    m_preferences.setHasCompletedOnboarding(true);
    if (m_c.views.refreshHistoryIfVisible)
        m_c.views.refreshHistoryIfVisible();
    log(QStringLiteral("onboarding completed"));
}

} // namespace dictora
