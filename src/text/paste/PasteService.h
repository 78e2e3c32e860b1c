#pragma once

#include "core/RuntimeLog.h"
#include "platform/Clipboard.h"
#include "platform/KeystrokeSender.h"
#include "text/paste/PasteTarget.h"

#include <QElapsedTimer>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

namespace dictora {

class WindowTracker;

// Puts a finished transcript on the clipboard and types the paste keystroke
// into the window that was frontmost when the dictation began. Main thread
// only, and it never blocks it: re-activating the target and waiting for the
// user to let go of keys are steps of a timer-driven sequence, and after the
// keystroke the target reads the clipboard from this process's event loop.
class PasteService : public QObject {
    Q_OBJECT
public:
    // Dispatch time: milliseconds from paste() to the keystroke.
    using Done = std::function<void(qint64 milliseconds)>;

    // The tracker, the sender and the clipboard are this desktop's (see
    // PlatformServices); the first two must outlive the service. Without a
    // clipboard only the keystroke goes out.
    PasteService(const RuntimeLog &log, WindowTracker &windows, KeystrokeSender &keystrokes,
                 std::unique_ptr<Clipboard> clipboard, QObject *parent = nullptr);
    ~PasteService() override;

    // The frontmost window of another application, as a paste target.
    std::optional<PasteTarget> captureTarget();

    // Never fails: whatever cannot be done is logged and skipped. Returns at
    // once; `done` follows on this thread once the desktop has taken the
    // keystroke, or never if the service goes first. Pastes asked for
    // meanwhile run after.
    void paste(const QString &text, const PasteTarget &target, Done done = {});
    // The clipboard alone, no keystroke. False where this desktop has none.
    bool copy(const QString &text);
    // Off by default: the transcript replaces what the clipboard held. On:
    // what it held, every format, comes back once the target has read the
    // transcript (or after restoreTimeout where reads cannot be seen).
    void setRestoresClipboard(bool restores) { m_restores = restores; }
    // Why the last paste did not reach the desktop, for the user; empty when
    // it did. Read it in `done`.
    QString lastError() const { return m_lastError; }

    // Bounds of the waits in the sequence; long enough for a window manager
    // and a user letting go of keys, short enough never to hang a dictation.
    static constexpr std::chrono::milliseconds activationTimeout{1000};
    static constexpr std::chrono::milliseconds keyReleaseTimeout{2000};
    // How long the compositor gets to take the clipboard over from XWayland.
    static constexpr std::chrono::milliseconds handOverTimeout{300};
    // How long the clipboard's owner gets to hand over what it holds, for "keep my clipboard".
    static constexpr std::chrono::milliseconds saveTimeout{1000};
    static constexpr std::chrono::milliseconds pollInterval{5};
    static constexpr std::chrono::milliseconds restoreTimeout{2000};
    // A target may ask for several formats of the text in a row.
    static constexpr std::chrono::milliseconds restoreAfterRead{300};

Q_SIGNALS:
    // The target read the text we offered, this long after paste() began.
    void delivered(qint64 milliseconds);

private:
    enum class Step { activating, releasingKeys, saving, handingOver, announcing, typing };
    struct Request {
        QString text;
        PasteTarget target;
        PasteKeystroke keystroke = PasteKeystroke::controlV;
        Done done;
        QElapsedTimer elapsed;
        Step step = Step::activating;
        QElapsedTimer stepElapsed;
        QStringList awaitedOffers; // selections the compositor has yet to take over
    };

    void begin();
    void advance();
    void enter(Step step);
    void offer();
    void install();
    void type();
    void finish(const QString &error);
    void onTextRead(const QString &selection);
    void restoreClipboard();

    const RuntimeLog &m_log;
    WindowTracker &m_windows;
    KeystrokeSender &m_keystrokes;
    std::unique_ptr<Clipboard> m_clipboard;
    std::deque<Request> m_queue;
    QTimer m_poll;
    QElapsedTimer m_lastPaste;
    bool m_busy = false; // the front request is under way
    quint64 m_requestSerial = 0; // which request an answer that comes late was for
    bool m_awaitingRead = false;
    bool m_restores = false;
    std::optional<ClipboardContents> m_saved; // what to put back, while a restore waits
    QTimer m_restore;
    QString m_lastError;
};

} // namespace dictora
