#include "core/session/DictoraController.h"

#include "core/Async.h"
#include "history/PendingJournal.h"
#include "shortcut/GlobalShortcut.h"
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"

#include <QPointer>

#include <array>

namespace dictora {

namespace {

using Kind = DictoraPhase::Kind;

// Whole milliseconds between two instants, truncated, never negative.
qint64 millisecondsBetween(const QDateTime &from, const QDateTime &to)
{
    const qint64 ms = from.msecsTo(to);
    return ms < 0 ? 0 : ms;
}

constexpr float kMeterActivityThreshold = 0.05f;
constexpr size_t kMinimumSamples = 1600; // 0.1 s at 16 kHz
constexpr float kMinimumRms = 0.0015f;

constexpr unsigned bit(Kind kind) { return 1u << unsigned(kind); }
constexpr unsigned kAnyPhase = ~0u;

// Every phase change the controller makes. A row applies when the current
// phase is in `from`; an event with no matching row changes nothing.
struct Transition {
    unsigned from;
    DictationEvent event;
    Kind to;
};
constexpr std::array kTransitions{
    Transition{bit(Kind::idle) | bit(Kind::error), DictationEvent::press, Kind::preparing},
    Transition{bit(Kind::recording), DictationEvent::press, Kind::finalizing},
    Transition{kAnyPhase, DictationEvent::modelNotReady, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::microphoneDenied, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::captureFailed, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::captureStarted, Kind::recording},
    Transition{bit(Kind::finalizing), DictationEvent::recordSaved, Kind::idle},
    Transition{bit(Kind::finalizing), DictationEvent::finalizationFailed, Kind::error},
    Transition{kAnyPhase, DictationEvent::shortcutMissing, Kind::needsAccessibility},
    Transition{bit(Kind::needsAccessibility), DictationEvent::shortcutInstalled, Kind::idle},
    Transition{kAnyPhase, DictationEvent::journalUnavailable, Kind::error},
};

DictoraPhase phaseOf(Kind kind, const QString &message)
{
    switch (kind) {
    case Kind::idle:
        return DictoraPhase::idle();
    case Kind::preparing:
        return DictoraPhase::preparing();
    case Kind::recording:
        return DictoraPhase::recording();
    case Kind::finalizing:
        return DictoraPhase::finalizing();
    case Kind::needsAccessibility:
        return DictoraPhase::needsAccessibility();
    case Kind::error:
        break;
    }
    return DictoraPhase::error(message);
}

} // namespace

DictoraController::DictoraController(DictoraState &state, ProductPreferences &preferences,
    Collaborators collaborators, QObject *parent)
    : QObject(parent)
    , m_state(state)
    , m_preferences(preferences)
    , m_c(std::move(collaborators))
    , m_onboarding(!preferences.hasCompletedOnboarding())
    , m_readiness(m_c.shortcut, m_c.permissions, m_c.microphone, m_onboarding, m_preferences, m_c.log,
          {m_c.shortcutRetryMs, m_c.permissionPollMs})
    , m_gesture(state, [&preferences] { return preferences.holdToTalk(); })
{
    connect(&m_readiness, &ReadinessMonitor::shortcutInstalled, this,
        [this] { transition(DictationEvent::shortcutInstalled); });
    connect(&m_readiness, &ReadinessMonitor::shortcutMissing, this,
        [this] { transition(DictationEvent::shortcutMissing); });

    m_listeningDots.setInterval(m_c.listeningDotMs);
    m_listeningDots.setTimerType(Qt::PreciseTimer);
    connect(&m_listeningDots, &QTimer::timeout, this, [this] {
        const auto kind = m_state.phase().kind();
        if (kind != Kind::preparing && kind != Kind::recording) {
            m_listeningDots.stop();
            return;
        }
        m_state.setListeningDotPhase((m_state.listeningDotPhase() + 1) % 3);
    });

    // Key down toggles; with hold to talk, a long hold's key up toggles back.
    connect(&m_c.shortcut, &ShortcutBackend::pressed, &m_gesture, &ShortcutGesture::press);
    connect(&m_c.shortcut, &ShortcutBackend::released, &m_gesture, &ShortcutGesture::release);
    connect(&m_gesture, &ShortcutGesture::toggleRequested, this, &DictoraController::toggleRecording);
}

DictoraController::~DictoraController() = default;

bool DictoraController::transition(DictationEvent event, const QString &message)
{
    const unsigned current = bit(m_state.phase().kind());
    for (const Transition &row : kTransitions) {
        if (row.event == event && (row.from & current) != 0) {
            m_state.setPhase(phaseOf(row.to, message));
            return true;
        }
    }
    return false;
}

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
    } catch (...) {
        transition(DictationEvent::journalUnavailable, QStringLiteral("State journal unavailable"));
        log(QStringLiteral("journal prepare failed error=") + errorMessage(std::current_exception()));
    }

    if (m_c.views.repositionOverlay)
        m_c.views.repositionOverlay(m_preferences.microphoneLocation());
    if (m_c.views.showOverlay)
        m_c.views.showOverlay();
    m_readiness.installCurrentShortcutSilently();
    log(QStringLiteral("app started dataDirectory=") + m_c.dataDirectory);
    if (m_c.views.showMainWindow)
        m_c.views.showMainWindow();

    if (m_onboarding.isPresented()) {
        QTimer::singleShot(m_c.onboardingDelayMs, this, [this] {
            m_readiness.startPermissionPolling();
            m_readiness.refreshPermissions();
            m_readiness.requestNextPermissionIfNeeded();
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
    case Kind::idle:
    case Kind::error:
        beginRecording();
        break;
    case Kind::recording:
        stopAndPaste();
        break;
    case Kind::preparing:
    case Kind::finalizing:
        break;
    case Kind::needsAccessibility:
        m_readiness.installCurrentShortcutSilently();
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
        transition(DictationEvent::modelNotReady, QStringLiteral("The accuracy model is finishing automatically"));
        log(QStringLiteral("recording blocked because mandatory accuracy model is not ready"));
        return;
    }
    m_operationInFlight = true;
    transition(DictationEvent::press);
    m_state.setMeterLevels(AudioMeterLevels::zero());
    startListeningDots();
    m_meterActivityLogged = false;

    QPointer<DictoraController> self(this);
    m_c.microphone.requestPermission([self](bool permitted) {
        if (self)
            self->permissionAnswered(permitted);
    });
}

void DictoraController::permissionAnswered(bool permitted)
{
    if (!permitted) {
        transition(DictationEvent::microphoneDenied, QStringLiteral("Allow Microphone"));
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("microphone permission denied"));
        m_operationInFlight = false;
        return;
    }
    m_target = isPracticing() ? std::nullopt : m_c.paster.captureTarget();
    const QUuid sessionID = QUuid::createUuid();
    const QDateTime startedAt = QDateTime::currentDateTimeUtc();
    QPointer<DictoraController> self(this);
    const SpeechPort::SampleSink sink = m_c.speech.beginStream();
    m_streaming = bool(sink);
    MicrophonePort::Listeners listeners;
    listeners.onSamples = sink;
    listeners.onMeterLevels = [self](AudioMeterLevels levels) {
        if (!self || !self->m_state.phase().is(Kind::recording))
            return;
        self->m_state.setMeterLevels(levels);
        if (!self->m_meterActivityLogged && levels.maximum() > kMeterActivityThreshold) {
            self->m_meterActivityLogged = true;
            self->log(QStringLiteral("pcm meter active"));
        }
    };
    m_c.microphone.start(std::move(listeners), [self, sessionID, startedAt](std::optional<QString> error) {
        if (self)
            self->captureStarted(error, sessionID, startedAt);
    });
}

void DictoraController::captureStarted(const std::optional<QString> &error, const QUuid &sessionID,
    const QDateTime &startedAt)
{
    if (error) {
        m_c.microphone.cancel();
        cancelStream();
        transition(DictationEvent::captureFailed, *error);
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("recording start failed error=") + *error);
        m_operationInFlight = false;
        return;
    }
    if (!transition(DictationEvent::captureStarted)) {
        // The shortcut went missing meanwhile: no recording nobody can stop.
        m_c.microphone.cancel();
        cancelStream();
        stopListeningDots();
        m_target.reset();
        m_operationInFlight = false;
        return;
    }
    m_recordingStartedAt = startedAt;
    m_recordingSessionID = sessionID;
    log(QStringLiteral("recording started session=") + uuidString(sessionID) + QStringLiteral(" target=")
        + (m_target ? m_target->application.name : QStringLiteral("none")));
    m_operationInFlight = false;
}

void DictoraController::stopAndPaste()
{
    m_operationInFlight = true;
    transition(DictationEvent::press);
    m_state.setMeterLevels(AudioMeterLevels::zero());
    stopListeningDots();
    log(QStringLiteral("stop key accepted; finalizing speech"));

    m_endedAt = QDateTime::currentDateTimeUtc();
    m_startedAt = m_recordingStartedAt.value_or(m_endedAt);
    m_sessionID = m_recordingSessionID.value_or(QUuid::createUuid());

    const QDateTime beforeStop = QDateTime::currentDateTimeUtc();
    QPointer<DictoraController> self(this);
    m_c.microphone.stop([self, beforeStop](MicrophonePort::Captured captured) {
        if (self)
            self->captureStopped(std::move(captured),
                millisecondsBetween(beforeStop, QDateTime::currentDateTimeUtc()));
    });
}

void DictoraController::captureStopped(MicrophonePort::Captured captured, qint64 captureStopMs)
{
    if (captured.samples.size() < kMinimumSamples || captured.rmsLevel < kMinimumRms) {
        log(QStringLiteral("accurate local transcription skipped for silence"));
        cancelStream();
        finishWithText(QString(), 0, captureStopMs, QString());
        return;
    }
    QPointer<DictoraController> self(this);
    auto done = [self, captureStopMs](std::optional<SpeechPort::Result> result, QString error) {
        if (!self)
            return;
        if (!result) {
            self->failDictation(error);
            return;
        }
        self->finishWithText(result->text, result->durationMilliseconds, captureStopMs, result->language);
    };
    if (m_streaming) {
        // Most of a long recording is recognised already; only the rest is left.
        m_streaming = false;
        m_c.speech.finishStream(std::move(done));
    } else {
        m_c.speech.transcribe(std::move(captured.samples), std::move(done));
    }
}

void DictoraController::cancelStream()
{
    if (!m_streaming)
        return;
    m_streaming = false;
    m_c.speech.cancelStream();
}

void DictoraController::finishWithText(const QString &raw, qint64 engineMs, qint64 captureStopMs, QString language)
{
    Finalization f;
    f.raw = raw;
    f.engineMs = engineMs;
    f.captureStopMs = captureStopMs;
    // A recogniser that does not say ran in the language the user chose.
    if (language.isEmpty() && m_preferences.language() != QLatin1String(ProductPreferences::kAutomaticLanguage))
        language = m_preferences.language();
    f.language = language;
    f.text = BasicFormatter::formatTranscript(raw, m_preferences.formattingEnabled(), language);
    if (m_preferences.snippetsEnabled())
        f.text = SnippetExpander::apply(f.text, m_c.snippets.entries());
    log(QStringLiteral("accurate local finalization returned rawChars=%1 formattedChars=%2")
            .arg(raw.size())
            .arg(f.text.size()));

    f.practice = isPracticing();
    if (f.text.isEmpty()) {
        f.outcome = TranscriptOutcome::empty;
    } else if (f.practice) {
        f.outcome = TranscriptOutcome::practice;
    } else if (!m_target) {
        f.outcome = TranscriptOutcome::failed;
        f.error = QString::fromLatin1(kNoTargetMessage);
    } else {
        f.outcome = TranscriptOutcome::pasted;
        QPointer<DictoraController> self(this);
        const QString text = f.text;
        m_c.paster.paste(text, *m_target, [self, f = std::move(f)](qint64 pasteMs) mutable {
            if (!self)
                return;
            f.pasteMs = pasteMs;
            self->saveRecord(std::move(f));
        });
        return;
    }
    saveRecord(std::move(f));
}

void DictoraController::saveRecord(Finalization f)
{
    m_state.setLastTranscript(f.text);

    TranscriptRecord record = sessionRecord(f.outcome);
    record.transcript = f.text;
    record.finalizationDurationMilliseconds = f.captureStopMs + f.engineMs;
    record.pasteDispatchDurationMilliseconds = f.pasteMs;
    record.error = f.error;
    record.earsDurationMilliseconds = f.engineMs;
    if (!f.language.isEmpty())
        record.language = f.language;

    log(QStringLiteral("journal append begin"));
    appendInBackground(record, [this, record, f](std::optional<QString> appendError) {
        if (appendError) {
            failDictation(*appendError);
            return;
        }
        log(QStringLiteral("journal append complete"));
        if (m_c.views.refreshHistoryIfVisible)
            m_c.views.refreshHistoryIfVisible();
        if (!f.text.isEmpty() && f.practice) {
            m_onboarding.completePractice(f.text, record.savedAt);
            log(QStringLiteral("onboarding practice completed chars=%1").arg(f.text.size()));
        }
        transition(DictationEvent::recordSaved);
        m_state.setMeterLevels(AudioMeterLevels::zero());
        log(QStringLiteral("overlay returned to idle"));
        log(QStringLiteral("recording completed outcome=%1 chars=%2 finalizeMs=%3")
                .arg(rawValue(record.outcome))
                .arg(f.text.size())
                .arg(record.finalizationDurationMilliseconds));
        resetSession();
        Q_EMIT dictationFinished();
    });
}

void DictoraController::failDictation(const QString &error)
{
    m_c.microphone.cancel();
    cancelStream();
    TranscriptRecord record = sessionRecord(TranscriptOutcome::failed);
    record.finalizationDurationMilliseconds = millisecondsBetween(m_endedAt, record.savedAt);
    record.error = error;
    appendInBackground(record, [this, error](std::optional<QString> appendError) {
        if (!appendError)
            log(QStringLiteral("failed recording archived without transcript"));
        else
            log(QStringLiteral("failed recording archive unavailable error=") + *appendError);
        transition(DictationEvent::finalizationFailed, error);
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
    runElsewhere(this,
        [journal = m_c.journal, record = std::move(record)]() -> std::optional<QString> {
            try {
                PendingJournal::of(journal).append(record);
                return std::nullopt;
            } catch (...) {
                return errorMessage(std::current_exception());
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
    m_readiness.installCurrentShortcutSilently();
}

ShortcutUpdateResult DictoraController::updateKeyboardShortcut(const GlobalShortcut &candidate)
{
    return m_readiness.updateKeyboardShortcut(candidate);
}

void DictoraController::refreshOnboardingPermissionStatus()
{
    m_readiness.refreshPermissions();
}

void DictoraController::requestOnboardingMicrophonePermission()
{
    m_readiness.requestMicrophonePermission([this] {
        if (m_c.views.openSettings)
            m_c.views.openSettings(QStringLiteral("microphone"));
    });
}

void DictoraController::continueAccessibility()
{
    // Nothing to grant on X11: another try at the grab is the whole step.
    m_readiness.installCurrentShortcutSilently();
}

void DictoraController::finishOnboarding()
{
    if (m_onboarding.stage() != OnboardingStage::ready || !m_c.speech.isReady())
        return;
    m_readiness.stopPermissionPolling();
    m_onboarding.setPresented(false);
    m_preferences.setHasCompletedOnboarding(true);
    if (m_c.views.refreshHistoryIfVisible)
        m_c.views.refreshHistoryIfVisible();
    log(QStringLiteral("onboarding completed"));
}

} // namespace dictora
