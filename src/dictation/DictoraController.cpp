#include "dictation/DictoraController.h"

#include "core/Async.h"
#include "history/PendingJournal.h"
#include "shortcut/GlobalShortcut.h"
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"

#include <QPointer>

#include <algorithm>
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
constexpr unsigned kAtRest = bit(Kind::idle) | bit(Kind::error) | bit(Kind::needsAccessibility);
constexpr unsigned kBusy = bit(Kind::preparing) | bit(Kind::recording) | bit(Kind::finalizing);
constexpr std::optional<Kind> kStay = std::nullopt;

// Every event each phase accepts, and where it leads (kStay: accepted, the
// phase stays). An event without a row is refused and logged. A press or a
// shortcut loss while the microphone opens or the text is produced waits
// for the phase to end: presses are dropped, and a missing shortcut is
// reported again by the next retry.
struct Transition {
    unsigned from;
    DictationEvent event;
    std::optional<Kind> to;
};
constexpr std::array kTransitions{
    Transition{bit(Kind::idle) | bit(Kind::error), DictationEvent::press, Kind::preparing},
    Transition{bit(Kind::recording), DictationEvent::press, Kind::finalizing},
    Transition{bit(Kind::needsAccessibility), DictationEvent::press, kStay},
    Transition{bit(Kind::recording), DictationEvent::release, Kind::finalizing},
    Transition{bit(Kind::preparing), DictationEvent::release, kStay},
    Transition{bit(Kind::idle) | bit(Kind::error), DictationEvent::modelNotReady, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::microphoneDenied, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::captureFailed, Kind::error},
    Transition{bit(Kind::preparing), DictationEvent::captureStarted, Kind::recording},
    Transition{bit(Kind::finalizing), DictationEvent::recordSaved, Kind::idle},
    Transition{bit(Kind::finalizing), DictationEvent::finalizationFailed, Kind::error},
    Transition{kAtRest, DictationEvent::shortcutMissing, Kind::needsAccessibility},
    // The words said so far are kept: the recording ends as if stopped.
    Transition{bit(Kind::recording), DictationEvent::shortcutMissing, Kind::finalizing},
    Transition{bit(Kind::needsAccessibility), DictationEvent::shortcutInstalled, Kind::idle},
    Transition{kAnyPhase & ~bit(Kind::needsAccessibility), DictationEvent::shortcutInstalled, kStay},
    Transition{kAtRest, DictationEvent::journalUnavailable, Kind::error},
};

QString eventName(DictationEvent event)
{
    switch (event) {
    case DictationEvent::press: return QStringLiteral("press");
    case DictationEvent::release: return QStringLiteral("release");
    case DictationEvent::modelNotReady: return QStringLiteral("modelNotReady");
    case DictationEvent::microphoneDenied: return QStringLiteral("microphoneDenied");
    case DictationEvent::captureFailed: return QStringLiteral("captureFailed");
    case DictationEvent::captureStarted: return QStringLiteral("captureStarted");
    case DictationEvent::recordSaved: return QStringLiteral("recordSaved");
    case DictationEvent::finalizationFailed: return QStringLiteral("finalizationFailed");
    case DictationEvent::shortcutMissing: return QStringLiteral("shortcutMissing");
    case DictationEvent::shortcutInstalled: return QStringLiteral("shortcutInstalled");
    case DictationEvent::journalUnavailable: return QStringLiteral("journalUnavailable");
    }
    return {};
}

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
    , m_readiness(m_c.shortcut, m_c.permissions, m_c.microphone, m_onboarding, m_preferences,
          {m_c.shortcutRetryMs, m_c.permissionPollMs})
    , m_gesture(state, [&preferences] { return preferences.holdToTalk(); })
{
    connect(&m_readiness, &ReadinessMonitor::shortcutUpdateRefused, this, &DictoraController::shortcutUpdateRefused);
    connect(&m_readiness, &ReadinessMonitor::shortcutInstalled, this,
        [this] { transition(DictationEvent::shortcutInstalled); });
    connect(&m_readiness, &ReadinessMonitor::shortcutMissing, this, [this] {
        if (transition(DictationEvent::shortcutMissing) && m_state.phase().is(Kind::finalizing)) {
            log(QStringLiteral("recording stopped because the shortcut is gone"));
            stopAndPaste();
        }
    });

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
    connect(&m_gesture, &ShortcutGesture::stopRequested, this, &DictoraController::releaseRecording);
}

DictoraController::~DictoraController()
{
    // Quitting is a way out too: whatever the phase holds is released.
    leave(Kind::idle);
}

bool DictoraController::transition(DictationEvent event, const QString &message)
{
    const Kind current = m_state.phase().kind();
    const auto row = std::find_if(kTransitions.begin(), kTransitions.end(),
        [&](const Transition &t) { return t.event == event && (t.from & bit(current)) != 0; });
    if (row == kTransitions.end()) {
        log(QStringLiteral("dictation event refused event=%1 phase=%2")
                .arg(eventName(event), DictoraPhase::name(current)));
        return false;
    }
    if (!row->to)
        return true;
    const Kind to = *row->to;
    Held previous = leave(to);
    Session *session = std::visit([](auto &h) -> Session * {
        if constexpr (std::is_same_v<std::decay_t<decltype(h)>, std::monostate>)
            return nullptr;
        else
            return &h.session;
    }, previous);
    switch (to) {
    case Kind::preparing:
        m_held = Preparing{Session{QUuid::createUuid(), {}, {}, false}};
        break;
    case Kind::recording:
        m_held = Recording{std::move(*session)};
        break;
    case Kind::finalizing:
        m_held = Finalizing{std::move(*session), QDateTime::currentDateTimeUtc()};
        break;
    default:
        m_held = std::monostate{};
        break;
    }
    m_state.setPhase(phaseOf(to, message));
    return true;
}

DictoraController::Held DictoraController::leave(Kind to)
{
    Held held = std::exchange(m_held, std::monostate{});
    if (auto *p = std::get_if<Preparing>(&held); p && to != Kind::recording) {
        if (p->captureRequested)
            m_c.microphone.cancel();
        cancelStream(p->session);
    } else if (auto *r = std::get_if<Recording>(&held); r && to != Kind::finalizing) {
        m_c.microphone.cancel();
        cancelStream(r->session);
    } else if (auto *f = std::get_if<Finalizing>(&held)) {
        cancelStream(f->session);
    }
    if (to != Kind::preparing && to != Kind::recording) {
        m_state.setMeterLevels(AudioMeterLevels::zero());
        m_state.setPreviewText(QString());
        stopListeningDots();
    }
    return held;
}

bool DictoraController::isCurrent(const QUuid &sessionID)
{
    return std::visit([&](auto &h) {
        if constexpr (std::is_same_v<std::decay_t<decltype(h)>, std::monostate>)
            return false;
        else
            return h.session.id == sessionID;
    }, m_held);
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
    connect(&m_c.speech, &SpeechPort::previewChanged, this, [this](const QString &text) {
        if (m_state.phase().is(Kind::recording))
            m_state.setPreviewText(text);
    });

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
    if (m_c.views.repositionOverlay)
        m_c.views.repositionOverlay(m_preferences.microphoneLocation());
    const Kind kind = m_state.phase().kind();
    if ((kind == Kind::idle || kind == Kind::error) && !m_c.speech.isReady()) {
        m_c.speech.startAutomatically();
        transition(DictationEvent::modelNotReady, QStringLiteral("The accuracy model is finishing automatically"));
        log(QStringLiteral("recording blocked because mandatory accuracy model is not ready"));
        return;
    }
    if (!transition(DictationEvent::press))
        return;
    switch (m_state.phase().kind()) {
    case Kind::preparing:
        beginRecording();
        break;
    case Kind::finalizing:
        stopAndPaste();
        break;
    case Kind::needsAccessibility:
        m_readiness.installCurrentShortcutSilently();
        break;
    default:
        break;
    }
}

void DictoraController::releaseRecording()
{
    if (Preparing *p = held<Preparing>()) {
        p->stopWhenOpen = true;
        return;
    }
    if (transition(DictationEvent::release))
        stopAndPaste();
}

bool DictoraController::isPracticing() const
{
    return m_onboarding.isPresented() && m_onboarding.stage() == OnboardingStage::practice;
}

void DictoraController::beginRecording()
{
    m_state.setMeterLevels(AudioMeterLevels::zero());
    startListeningDots();
    QPointer<DictoraController> self(this);
    const QUuid sessionID = held<Preparing>()->session.id;
    m_c.microphone.requestPermission([self, sessionID](bool permitted) {
        if (self)
            self->permissionAnswered(sessionID, permitted);
    });
}

void DictoraController::permissionAnswered(const QUuid &sessionID, bool permitted)
{
    Preparing *preparing = held<Preparing>();
    if (!preparing || preparing->session.id != sessionID)
        return; // the press was abandoned meanwhile
    if (!permitted) {
        transition(DictationEvent::microphoneDenied, QStringLiteral("Allow Microphone"));
        log(QStringLiteral("microphone permission denied"));
        return;
    }
    Session &session = preparing->session;
    session.target = isPracticing() ? std::nullopt : m_c.paster.captureTarget();
    session.startedAt = QDateTime::currentDateTimeUtc();
    const SpeechPort::SampleSink sink = m_c.speech.beginStream();
    session.streaming = bool(sink);
    preparing->captureRequested = true;

    QPointer<DictoraController> self(this);
    MicrophonePort::Listeners listeners;
    listeners.onSamples = sink;
    listeners.onMeterLevels = [self](AudioMeterLevels levels) {
        Recording *recording = self ? self->held<Recording>() : nullptr;
        if (!recording)
            return;
        self->m_state.setMeterLevels(levels);
        if (!recording->meterActivityLogged && levels.maximum() > kMeterActivityThreshold) {
            recording->meterActivityLogged = true;
            self->log(QStringLiteral("pcm meter active"));
        }
    };
    m_c.microphone.start(std::move(listeners), [self, sessionID](std::optional<QString> error) {
        if (self)
            self->captureStarted(sessionID, error);
    });
}

void DictoraController::captureStarted(const QUuid &sessionID, const std::optional<QString> &error)
{
    if (!isCurrent(sessionID))
        return; // abandoned; leaving the phase closed the microphone
    if (error) {
        transition(DictationEvent::captureFailed, *error);
        log(QStringLiteral("recording start failed error=") + *error);
        return;
    }
    const bool stopNow = held<Preparing>()->stopWhenOpen;
    transition(DictationEvent::captureStarted);
    const Session &session = held<Recording>()->session;
    log(QStringLiteral("recording started session=") + uuidString(session.id) + QStringLiteral(" target=")
        + (session.target ? session.target->application.name : QStringLiteral("none")));
    if (stopNow && transition(DictationEvent::release))
        stopAndPaste();
}

void DictoraController::stopAndPaste()
{
    log(QStringLiteral("stop key accepted; finalizing speech"));
    const QUuid sessionID = held<Finalizing>()->session.id;
    const QDateTime beforeStop = QDateTime::currentDateTimeUtc();
    QPointer<DictoraController> self(this);
    m_c.microphone.stop([self, sessionID, beforeStop](MicrophonePort::Captured captured) {
        if (self)
            self->captureStopped(sessionID, std::move(captured),
                millisecondsBetween(beforeStop, QDateTime::currentDateTimeUtc()));
    });
}

void DictoraController::captureStopped(const QUuid &sessionID, MicrophonePort::Captured captured, qint64 captureStopMs)
{
    if (!isCurrent(sessionID))
        return;
    if (captured.samples.size() < kMinimumSamples || captured.rmsLevel < kMinimumRms) {
        log(QStringLiteral("accurate local transcription skipped for silence"));
        cancelStream(held<Finalizing>()->session);
        finishWithText(QString(), 0, captureStopMs, QString());
        return;
    }
    QPointer<DictoraController> self(this);
    auto done = [self, sessionID, captureStopMs](std::optional<SpeechPort::Result> result, QString error) {
        if (!self || !self->isCurrent(sessionID))
            return;
        if (!result) {
            self->failDictation(error);
            return;
        }
        self->finishWithText(result->text, result->durationMilliseconds, captureStopMs, result->language);
    };
    Session &session = held<Finalizing>()->session;
    if (session.streaming) {
        // Most of a long recording is recognised already; only the rest is left.
        session.streaming = false;
        m_c.speech.finishStream(std::move(done));
    } else {
        m_c.speech.transcribe(std::move(captured.samples), std::move(done));
    }
}

void DictoraController::cancelStream(Session &session)
{
    if (!std::exchange(session.streaming, false))
        return;
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
    } else if (!held<Finalizing>()->session.target) {
        f.outcome = TranscriptOutcome::failed;
        f.error = QString::fromLatin1(kNoTargetMessage);
    } else {
        f.outcome = TranscriptOutcome::pasted;
        QPointer<DictoraController> self(this);
        const QString text = f.text;
        m_c.paster.paste(text, *held<Finalizing>()->session.target, [self, f = std::move(f)](qint64 pasteMs) mutable {
            if (!self)
                return;
            f.pasteMs = pasteMs;
            // Pasted means the desktop took every key event.
            if (const QString error = self->m_c.paster.lastPasteError(); !error.isEmpty()) {
                f.outcome = TranscriptOutcome::failed;
                f.error = error;
            }
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
        log(QStringLiteral("overlay returned to idle"));
        log(QStringLiteral("recording completed outcome=%1 chars=%2 finalizeMs=%3")
                .arg(rawValue(record.outcome))
                .arg(f.text.size())
                .arg(record.finalizationDurationMilliseconds));
        Q_EMIT dictationFinished();
    });
}

void DictoraController::failDictation(const QString &error)
{
    // The microphone closed at the stop; the stream, if any, goes with the phase.
    TranscriptRecord record = sessionRecord(TranscriptOutcome::failed);
    record.finalizationDurationMilliseconds = millisecondsBetween(record.recordingEndedAt, record.savedAt);
    record.error = error;
    appendInBackground(record, [this, error](std::optional<QString> appendError) {
        if (!appendError)
            log(QStringLiteral("failed recording archived without transcript"));
        else
            log(QStringLiteral("failed recording archive unavailable error=") + *appendError);
        transition(DictationEvent::finalizationFailed, error);
        log(QStringLiteral("recording finalization failed error=") + error);
        Q_EMIT dictationFinished();
    });
}

TranscriptRecord DictoraController::sessionRecord(TranscriptOutcome outcome)
{
    const Finalizing &f = *held<Finalizing>();
    const QDateTime startedAt = f.session.startedAt.isValid() ? f.session.startedAt : f.endedAt;
    TranscriptRecord record;
    record.id = f.session.id;
    record.recordingStartedAt = startedAt;
    record.recordingEndedAt = f.endedAt;
    record.savedAt = QDateTime::currentDateTimeUtc();
    if (f.session.target)
        record.targetApplication = f.session.target->application;
    record.recordingDurationMilliseconds = millisecondsBetween(startedAt, f.endedAt);
    record.totalDurationMilliseconds = millisecondsBetween(startedAt, record.savedAt);
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
