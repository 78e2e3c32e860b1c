#pragma once

#include "core/RuntimeLog.h"
#include "text/paste/PasteTarget.h"

#include <QElapsedTimer>
#include <QObject>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

namespace dictora {

class Clipboard;
class KeystrokeSender;
class WindowTracker;

// Puts a finished transcript on the clipboard and types the paste keystroke
// into the window that was frontmost when the dictation began. Main thread
// only; it never blocks after the keystroke, because the target reads the
// clipboard from this process's event loop.
class PasteService : public QObject {
    Q_OBJECT
public:
    // Uses this desktop's window tracker and keystroke sender.
    explicit PasteService(const RuntimeLog &log, QObject *parent = nullptr);
    // Uses the given ones, which must outlive the service.
    PasteService(const RuntimeLog &log, WindowTracker &windows, KeystrokeSender &keystrokes,
                 QObject *parent = nullptr);
    ~PasteService() override;

    // The frontmost window of another application, as a paste target.
    std::optional<PasteTarget> captureTarget();

    // Never fails: whatever cannot be done is logged and skipped. Returns the
    // whole call's duration in milliseconds.
    std::int64_t paste(const QString &text, const PasteTarget &target);

    // Bounds of the waits inside paste(); long enough for a window manager
    // and a user letting go of keys, short enough never to hang the program.
    static constexpr std::chrono::milliseconds activationTimeout{1000};
    static constexpr std::chrono::milliseconds keyReleaseTimeout{2000};

Q_SIGNALS:
    // The target read the text we offered, this long after paste() began.
    void delivered(qint64 milliseconds);

private:
    void onTextRead(const QString &selection);

    const RuntimeLog &m_log;
    std::unique_ptr<WindowTracker> m_ownedWindows;
    std::unique_ptr<KeystrokeSender> m_ownedKeystrokes;
    WindowTracker &m_windows;
    KeystrokeSender &m_keystrokes;
    std::unique_ptr<Clipboard> m_clipboard;
    QElapsedTimer m_lastPaste;
    bool m_awaitingRead = false;
};

} // namespace dictora
