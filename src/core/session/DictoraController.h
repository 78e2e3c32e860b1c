#pragma once

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "core/RuntimeLog.h"
#include "core/ShortcutGesture.h"
#include "core/session/DictationPorts.h"
#include "core/session/ReadinessMonitor.h"
#include "history/TranscriptJournal.h"
#include "onboarding/OnboardingModel.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "text/SnippetStore.h"

#include <QDateTime>
#include <QObject>
#include <QTimer>
#include <QUuid>

namespace dictora {

// What moves a dictation from one phase to the next; see the table in
// DictoraController.cpp.
enum class DictationEvent {
    press,              // the shortcut, in a phase where it starts or stops
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
        RuntimeLog &log;
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
    bool isOperationInFlight() const { return m_operationInFlight; }

    void start();
    void toggleRecording();
    ShortcutUpdateResult updateKeyboardShortcut(const GlobalShortcut &candidate);
    void finishOnboarding();
    void requestOnboardingMicrophonePermission();
    void continueAccessibility();
    void installCurrentShortcutSilently();
    void refreshOnboardingPermissionStatus();

Q_SIGNALS:
    // A dictation ended, with or without a record (tests and the windows listen).
    void dictationFinished();

private:
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

    // Applies the table's row for (current phase, event); false, and no
    // change, when the table has none.
    bool transition(DictationEvent event, const QString &message = {});

    void beginRecording();
    void permissionAnswered(bool permitted);
    void captureStarted(const std::optional<QString> &error, const QUuid &sessionID, const QDateTime &startedAt);
    void stopAndPaste();
    void captureStopped(MicrophonePort::Captured captured, qint64 captureStopMs);
    void finishWithText(const QString &raw, qint64 engineMs, qint64 captureStopMs, QString language);
    void saveRecord(Finalization finalization);
    void failDictation(const QString &error);
    void cancelStream();
    // The fields every record of this session shares.
    TranscriptRecord sessionRecord(TranscriptOutcome outcome) const;
    using AppendDone = std::function<void(std::optional<QString> error)>;
    void appendInBackground(TranscriptRecord record, AppendDone done);
    void resetSession();
    void startListeningDots();
    void stopListeningDots();
    bool isPracticing() const;
    void log(const QString &message) const { m_c.log.write(message); }

    DictoraState &m_state;
    ProductPreferences &m_preferences;
    Collaborators m_c;
    OnboardingModel m_onboarding;
    ReadinessMonitor m_readiness;
    ShortcutGesture m_gesture;

    std::optional<QDateTime> m_recordingStartedAt;
    std::optional<QUuid> m_recordingSessionID;
    std::optional<PasteTarget> m_target;
    bool m_streaming = false; // the speech port recognises while recording
    bool m_operationInFlight = false;
    bool m_meterActivityLogged = false;

    // Session values carried across the asynchronous stop.
    QDateTime m_endedAt;
    QDateTime m_startedAt;
    QUuid m_sessionID;

    QTimer m_listeningDots;
};

} // namespace dictora
