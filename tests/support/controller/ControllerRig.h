#pragma once

#include "dictation/DictoraController.h"

#include <QSettings>
#include <QTemporaryDir>

#include <functional>
#include <memory>
#include <optional>

namespace dictora::test {

// Answers the controller the way the real speech port does: later, from the
// event loop. With `streams` set it recognises while recording.
class FakeSpeech : public SpeechPort {
public:
    bool ready = true;
    bool streams = false;
    QString text;
    QString error; // non-empty: recognition fails
    int startCalls = 0, transcribeCalls = 0, begun = 0, finished = 0, cancelled = 0;
    std::vector<float> streamed;

    bool isReady() const override { return ready; }
    void startAutomatically() override { ++startCalls; }
    void transcribe(std::vector<float> samples, Done done) override;
    SampleSink beginStream() override;
    void finishStream(Done done) override;
    void cancelStream() override { ++cancelled; }

private:
    void answer(qint64 ms, Done done);
};

// The microphone as the controller sees it. It counts how often it was
// opened and closed, so a test can ask that every recording closes it once.
// With `holdStart` set a start waits for open() (the sound server is slow).
class FakeMicrophone : public MicrophonePort {
public:
    bool permitted = true;
    bool holdStart = false;
    QString startError;
    std::vector<float> recording = std::vector<float>(16000, 0.1f);
    float rms = 0.1f;
    int starts = 0, stops = 0, cancels = 0;
    bool isOpen = false;
    Listeners listeners;

    // Completes a held start, or fails it.
    void open();
    void fail(const QString &error);
    bool startPending() const { return bool(m_pendingStart); }
    // Samples arrive as from the capture thread.
    void capture(const std::vector<float> &samples);

    void start(Listeners listeners, Started done) override;
    void stop(Stopped done) override;
    void cancel() override;
    void requestPermission(Answered done) override;
    void checkStatus(StatusDone done) override;

private:
    Started m_pendingStart;
};

class FakePaster : public PasterPort {
public:
    std::optional<PasteTarget> target = PasteTarget{
        TargetApplication{QStringLiteral("Mousepad"), QStringLiteral("Mousepad"), 4242}, {77}};
    QStringList pasted;
    QString error; // non-empty: the desktop refused the keystroke
    std::optional<PasteTarget> captureTarget() override { return target; }
    void paste(const QString &text, const PasteTarget &, Pasted done) override;
    QString lastPasteError() const override { return error; }
};

class FakeShortcut : public ShortcutBackend {
public:
    bool accepts = true;
    bool awaiting = false;                  // a desktop that answers later
    std::optional<GlobalShortcut> refused;  // what that desktop turned down
    QList<GlobalShortcut> installed;
    bool install(const GlobalShortcut &shortcut) override
    {
        installed << shortcut;
        return verifyInstalled(shortcut);
    }
    bool verifyInstalled(const GlobalShortcut &shortcut) const override { return accepts && !(refused && *refused == shortcut); }
    bool isAwaitingDesktop() const override { return awaiting; }
    void uninstall() override {}
    QString failureReason() const override { return accepts ? QString() : QStringLiteral("key is grabbed by another program"); }
    void press() { Q_EMIT pressed(); }
    void release() { Q_EMIT released(); }
};

class FakePermissions : public PermissionProbe {
public:
    bool trusted = true;
    PermissionCheck accessibility(const ShortcutBackend *) override
    {
        return trusted ? PermissionCheck::granted() : PermissionCheck::needsAttention(QStringLiteral("no"));
    }
};

// One controller over the fakes above and real files for the rest
// (journal, log, snippets, settings). Timers run fast.
struct ControllerRig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("Dictora.conf")), QSettings::IniFormat};
    DictoraState state;
    ProductPreferences preferences{settings};
    FakeSpeech speech;
    FakeMicrophone microphone;
    FakePaster paster;
    FakeShortcut shortcut;
    FakePermissions permissions;
    RuntimeLog log{dir.filePath(QStringLiteral("runtime.log"))};
    std::unique_ptr<SnippetStore> snippets;
    std::unique_ptr<DictoraController> controller;
    qint64 now = 0; // the gesture's clock

    explicit ControllerRig(bool onboarded = true);
    // A controller over another journal (a broken one); the rig's own otherwise.
    void build(std::optional<TranscriptJournal> journal = std::nullopt);
    TranscriptJournal journal() const;
    QStringList logMessages() const;

    // One press to start, one to stop; true once the dictation is saved.
    bool dictate();
    // Waits for the dictation under way to end (record saved or failed).
    bool waitFinished(int ms = 5000);
};

} // namespace dictora::test
