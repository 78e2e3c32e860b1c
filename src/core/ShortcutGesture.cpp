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

} // namespace

ShortcutGesture::ShortcutGesture(const DictoraState &state, Setting holdToTalk, QObject *parent)
    : QObject(parent), m_state(state), m_holdToTalk(std::move(holdToTalk)), m_clock(&monotonicMs)
{
}

void ShortcutGesture::press()
{
    // A second press without a release (a desktop binding that lost its
    // release) still counts: the user pressed again.
    const DictoraPhase phase = m_state.phase();
    m_keyDown = true;
    m_pressedAt = m_clock();
    m_pressStarted = phase.is(DictoraPhase::Kind::idle) || phase.is(DictoraPhase::Kind::error);
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
    Q_EMIT stopRequested();
}

} // namespace dictora
