#pragma once

#include "platform/ShortcutBackend.h"

#include <memory>
#include <optional>
#include <vector>

class QSocketNotifier;

namespace dictora::x11 {

class XConnection;

// Passive key grabs on the root window of a private connection: the X server
// hands the chord to us alone, whatever window has the focus. The grab is
// repeated for every lock state (CapsLock, NumLock) so locks never matter.
class X11ShortcutBackend final : public ShortcutBackend {
    Q_OBJECT
public:
    explicit X11ShortcutBackend(QObject *parent = nullptr);
    ~X11ShortcutBackend() override;

    bool install(const GlobalShortcut &shortcut) override;
    bool verifyInstalled(const GlobalShortcut &shortcut) const override;
    void uninstall() override;
    QString failureReason() const override { return m_failureReason; }

    // Reads every event the server sent before this call: a round trip puts
    // them all in the queue, so events caused elsewhere earlier are handled.
    void processPendingEvents();

    // Key presses of the chord that arrived while it was already held
    // (auto-repeat) and were therefore not reported.
    int ignoredRepeats() const { return m_ignoredRepeats; }

private:
    struct Grab {
        int keycode = 0;
        unsigned int modifiers = 0;
        std::vector<unsigned int> lockVariants;
    };

    std::optional<Grab> grabFor(const GlobalShortcut &shortcut);
    bool grab(const GlobalShortcut &shortcut);
    void ungrab();
    void readEvents();
    void renewGrabs();
    void queueRead();

    std::unique_ptr<XConnection> m_connection;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::optional<GlobalShortcut> m_installed;
    std::optional<Grab> m_grab;
    QString m_failureReason;
    int m_xkbEventBase = -1;
    bool m_keyHeld = false;
    int m_ignoredRepeats = 0;
    bool m_readQueued = false;
};

} // namespace dictora::x11
