#pragma once

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "core/RuntimeLog.h"
#include "core/ShortcutGesture.h"
#include "dictation/DictationPorts.h"
#include "dictation/ReadinessMonitor.h"
#include "history/TranscriptJournal.h"
#include "onboarding/OnboardingModel.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "text/SnippetStore.h"

#include <QDateTime>
#include <QObject>
#include <QTimer>
#include <QUuid>

#include <variant>

namespace dictora {

// What moves a dictation from one phase to the next; see the table in
// DictoraController.cpp.
enum class DictationEvent {
    press,              // the shortcut: starts, stops, or retries the shortcut
    release,            // a held shortcut let go (hold to talk): stops
    modelNotReady,      // a press while the speech model is still preparing
    microphoneDenied,
    captureFailed,
    captureStarted,
    recordSaved,        // the record is in the journal, whatever its outcome
    finalizationFailed, // recognition or the journal append threw
    shortcutMissing,
    shortcutInstalled,
    journalUnavailable,
};

// Runs a dictation from shortcut press to saved record. Main thread only;
// the only writer of DictoraState. Every port answers asynchronously, so no
// step here waits on a server.
class DictoraController : public QObject {
    Q_OBJECT
    using Kind = DictoraPhase::Kind;

public:
    static constexpr auto kEngineIdentifier = "exact-local-large-v3-turbo-q5_0";
    static constexpr auto kNoTargetMessage = "No external target application was focused when recording began.";

    struct Collaborators {
        SpeechPort &speech;
        MicrophonePort &microphone;
        PasterPort &paster;
        ShortcutBackend &shortcut;
        PermissionProbe &permissions;
        SnippetStore &snippets;
        TranscriptJournal journal;
        QString dataDirectory;
        ViewPorts views;
        // Timer periods; tests shorten them.
        int shortcutRetryMs = 1000;
        int permissionPollMs = 750;
        int onboardingDelayMs = 350;
        int listeningDotMs = 250;
    };

    DictoraController(DictoraState &state, ProductPreferences &preferences, Collaborators collaborators,
        QObject *parent = nullptr);
    ~DictoraController() override;

    OnboardingModel &onboarding() { return m_onboarding; }
    // Key down and up of the shortcut, also from a desktop's own binding.
    ShortcutGesture &shortcutGesture() { return m_gesture; }
    DictoraState &state() { return m_state; }
    ReadinessMonitor &readiness() { return m_readiness; }

    void start();
    void toggleRecording();
    // A held shortcut let go: stops the recording, or stops it as soon as
    // the microphone is open.
    void releaseRecording();
    ShortcutUpdateResult updateKeyboardShortcut(const GlobalShortcut &candidate);
    void finishOnboarding();
    void requestOnboardingMicrophonePermission();
    void continueAccessibility();
    void installCurrentShortcutSilently();
    void refreshOnboardingPermissionStatus();

Q_SIGNALS:
    // A dictation ended, with or without a record (tests and the windows listen).
    void dictationFinished();
    // The desktop refused a changed shortcut it had been asked to bind; the old one stays.
    void shortcutUpdateRefused(const QString &reason);

private:
    // What a dictation holds from the press to its record; each phase that
    // holds something carries it as its own data, so nothing outlives it.
    struct Session {
        QUuid id;
        QDateTime startedAt;
        std::optional<PasteTarget> target;
        bool streaming = false; // the speech port recognises while recording
    };
    struct Preparing {
        Session session;
        bool captureRequested = false; // the microphone is opening
        bool stopWhenOpen = false;     // a held shortcut was let go meanwhile
    };
    struct Recording {
        Session session;
        bool meterActivityLogged = false;
    };
    struct Finalizing {
        Session session;
        QDateTime endedAt;
    };
    // Idle, error and needsAccessibility hold nothing.
    using Held = std::variant<std::monostate, Preparing, Recording, Finalizing>;

    // What one stop has produced so far, carried through its asynchronous steps.
    struct Finalization {
        QString raw;
        QString text;
        qint64 captureStopMs = 0;
        qint64 engineMs = 0;
        qint64 pasteMs = 0;
        bool practice = false;
        QString language;
        TranscriptOutcome outcome = TranscriptOutcome::empty;
        std::optional<QString> error;
    };

    // Applies the table's row for (current phase, event): leaves the phase
    // (releasing what it holds) and enters the next. Without a row the event
    // is refused, logged, and nothing changes.
    bool transition(DictationEvent event, const QString &message = {});
    // The one exit of each phase: what it holds is handed on or released.
    Held leave(Kind to);
    template<typename T> T *held() { return std::get_if<T>(&m_held); }
    bool isCurrent(const QUuid &sessionID);

    void beginRecording();
    void permissionAnswered(const QUuid &sessionID, bool permitted);
    void captureStarted(const QUuid &sessionID, const std::optional<QString> &error);
    void stopAndPaste();
    void captureStopped(const QUuid &sessionID, MicrophonePort::Captured captured, qint64 captureStopMs);
    void finishWithText(const QString &raw, qint64 engineMs, qint64 captureStopMs, QString language);
    void saveRecord(Finalization finalization);
    void failDictation(const QString &error);
    void finishStream(SpeechPort::Done done);
    void cancelStream(Session &session);
    // The fields every record of this session shares.
    TranscriptRecord sessionRecord(TranscriptOutcome outcome);
    using AppendDone = std::function<void(std::optional<QString> error)>;
    void appendInBackground(TranscriptRecord record, AppendDone done);
    void startListeningDots();
    void stopListeningDots();
    bool isPracticing() const;
    void log(const QString &message) const { qCInfo(lcSession).noquote() << message; }

    DictoraState &m_state;
    ProductPreferences &m_preferences;
    Collaborators m_c;
    OnboardingModel m_onboarding;
    ReadinessMonitor m_readiness;
    ShortcutGesture m_gesture;

    Held m_held;
    QTimer m_listeningDots;
};

} // namespace dictora
