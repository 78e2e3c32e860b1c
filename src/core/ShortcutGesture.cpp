#include "core/ShortcutGesture.h"

#include <QElapsedTimer>

#include <utility>

namespace dictora {

namespace {
qint64 monotonicMs()
{
    static QElapsedTimer timer = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return timer.elapsed();
}

bool isStarting(const DictoraPhase &phase)
{
    return phase.is(DictoraPhase::Kind::preparing);
}
} // namespace

ShortcutGesture::ShortcutGesture(const DictoraState &state, Setting holdToTalk, QObject *parent)
    : QObject(parent), m_state(state), m_holdToTalk(std::move(holdToTalk)), m_clock(&monotonicMs)
{
    connect(&state, &DictoraState::phaseChanged, this, &ShortcutGesture::phaseChanged);
}

void ShortcutGesture::press()
{
    // A second press without a release (a desktop binding that lost its
    // release) still counts: the user pressed again.
    const DictoraPhase phase = m_state.phase();
    m_keyDown = true;
    m_pressedAt = m_clock();
    m_pressStarted = phase.is(DictoraPhase::Kind::idle) || phase.is(DictoraPhase::Kind::error);
    m_stopWhenRecording = false;
    Q_EMIT toggleRequested();
}

void ShortcutGesture::release()
{
    if (!m_keyDown)
        return; // a release whose press went elsewhere
    m_keyDown = false;
    const bool started = std::exchange(m_pressStarted, false);
    if (!started || !m_holdToTalk || !m_holdToTalk())
        return;
    if (m_clock() - m_pressedAt < kHoldThresholdMs)
        return; // a tap: the recording goes on until the next press
    const DictoraPhase phase = m_state.phase();
    if (phase.is(DictoraPhase::Kind::recording))
        Q_EMIT toggleRequested();
    else if (isStarting(phase))
        m_stopWhenRecording = true;
}

void ShortcutGesture::phaseChanged(const DictoraPhase &phase)
{
    if (!m_stopWhenRecording || isStarting(phase))
        return;
    m_stopWhenRecording = false;
    if (phase.is(DictoraPhase::Kind::recording))
        Q_EMIT toggleRequested();
}

} // namespace dictora
