#pragma once

#include "core/DictoraState.h"

#include <QObject>

#include <functional>

namespace dictora {

// Turns the shortcut's key going down and up into requests. A press always
// toggles. With hold to talk on, releasing a key that started a recording and
// was held long enough asks for a stop, so holding records until release while
// a quick tap still behaves as a toggle. Whether the dictation can stop yet
// (the microphone may still be opening) is the controller's business.
class ShortcutGesture : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 kHoldThresholdMs = 300;

    using Clock = std::function<qint64()>; // monotonic milliseconds
    using Setting = std::function<bool()>;

    ShortcutGesture(const DictoraState &state, Setting holdToTalk, QObject *parent = nullptr);
    // Tests pass their own clock.
    void setClock(Clock clock) { m_clock = std::move(clock); }

public Q_SLOTS:
    void press();
    void release();

Q_SIGNALS:
    void toggleRequested();
    void stopRequested();

private:
    const DictoraState &m_state;
    Setting m_holdToTalk;
    Clock m_clock;
    bool m_keyDown = false;
    bool m_pressStarted = false; // this press began a recording
    qint64 m_pressedAt = 0;
};

} // namespace dictora
