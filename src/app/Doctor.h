#pragma once

#include "core/DiagnosticReport.h"
#include "dictation/DictationPorts.h"
#include "shortcut/GlobalShortcut.h"
#include "speech/AccuracyModelContract.h"
#include "speech/SpeechDevice.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>

namespace dictora {

class AccurateSpeechEngine;
class AudioCaptureThread;
class KeystrokeSender;
class PermissionProbe;
class ShortcutBackend;
class WindowTracker;

// Checks every part a dictation goes through, on this desktop, now: the
// same services a dictation uses, asked what they can do. The running
// program's Diagnostics sheet and `dictora doctor` share it; without a
// running program the command line builds the services itself.
class Doctor : public QObject {
    Q_OBJECT
public:
    struct Parts {
        QStringList backendReport; // Platform::takeBackendReport()'s lines
        ShortcutBackend &shortcut;
        GlobalShortcut shortcutKey;
        // The running program holds the binding and is only asked about it;
        // otherwise the check binds it for a moment and lets it go.
        bool shortcutHeldHere = false;
        WindowTracker &windows;
        KeystrokeSender &keystrokes;
        PermissionProbe &permissions;
        bool hasClipboard = true;
        MicrophonePort &microphone;
        QString microphoneName;                 // what the user chose; empty: the system default
        // The sound server's inputs by name, to tell whether the chosen one is there; may be empty.
        std::function<void(std::function<void(QStringList names)>)> listMicrophones;
        std::function<bool()> microphoneBusy;   // a dictation is recording
        AccuracyModelContract contract;
        QString modelPath;
        // A loaded engine to time a recognition on; without one a verified
        // model is loaded into an engine of the doctor's own.
        AccurateSpeechEngine *engine = nullptr;
        SpeechDevicePreference devicePreference = SpeechDevicePreference::automatic;
        QString dataDirectory;
        QString journalPath;
        int microphoneTestMs = 3000;
    };

    explicit Doctor(Parts parts, QObject *parent = nullptr);
    ~Doctor() override;

    using Done = std::function<void(const DiagnosticReport &report)>;
    // Returns at once; `done` follows on this thread. One run at a time:
    // a second call while one runs waits for the same report.
    void run(Done done);

    // Without a running program: makes this desktop's services, checks them
    // and returns the report (runs the event loop until then).
    static DiagnosticReport checkHere();
    // Parts::listMicrophones over a capture thread.
    static std::function<void(std::function<void(QStringList)>)> inputNames(AudioCaptureThread &capture);

    // "x11-key-grab" for service "shortcut", from the backend report.
    static QString backendFor(const QStringList &report, const QString &service);
    // Free space below which journal appends are at risk.
    static constexpr qint64 kLowSpaceBytes = 50LL * 1024 * 1024;

private:
    struct Run;
    void finish();
    void checkShortcut();
    DiagnosticCheck shortcutBoundHere(const QString &backend, const QString &key, const QString &who, const QString &fix);
    DiagnosticCheck windowCheck();
    DiagnosticCheck keystrokeCheck();
    DiagnosticCheck clipboardCheck();
    void testMicrophone();
    void recordMicrophone(const QString &name, const QString &missing);
    void checkFilesElsewhere();
    void timeRecognition();

    Parts m_parts;
    std::unique_ptr<AccurateSpeechEngine> m_ownEngine;
    std::shared_ptr<Run> m_run;
    QList<Done> m_waiting;
};

} // namespace dictora
