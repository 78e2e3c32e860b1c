#include "core/GuiStallWatch.h"

#include <algorithm>

namespace dictora {

GuiStallWatch::GuiStallWatch(int periodMs, QObject *parent) : QObject(parent), m_periodMs(periodMs)
{
    m_heartbeat.setInterval(periodMs);
    m_heartbeat.setTimerType(Qt::PreciseTimer);
    connect(&m_heartbeat, &QTimer::timeout, this, &GuiStallWatch::beat);
}

void GuiStallWatch::start()
{
    reset();
    m_heartbeat.start();
}

void GuiStallWatch::stop()
{
    beat();
    m_heartbeat.stop();
}

void GuiStallWatch::reset()
{
    m_longestNs = 0;
    m_sinceBeat.start();
}

void GuiStallWatch::beat()
{
    // A beat due every period that came this late: the loop was busy or blocked meanwhile.
    const qint64 lateNs = m_sinceBeat.nsecsElapsed() - qint64(m_periodMs) * 1'000'000;
    m_longestNs = std::max(m_longestNs, lateNs);
    m_sinceBeat.start();
}

qint64 GuiStallWatch::longestStallMs() const
{
    const qint64 pendingNs = m_heartbeat.isActive() ? m_sinceBeat.nsecsElapsed() - qint64(m_periodMs) * 1'000'000 : 0;
    return std::max(m_longestNs, pendingNs) / 1'000'000;
}

} // namespace dictora
