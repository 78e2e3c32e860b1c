#include "core/GuiStallWatch.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMetaEnum>
#include <QTimerEvent>

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace dictora {

GuiStallWatch::GuiStallWatch(int periodMs, QObject *parent) : QObject(parent), m_periodMs(periodMs)
{
    m_heartbeat.setInterval(periodMs);
    m_heartbeat.setTimerType(Qt::PreciseTimer);
    connect(&m_heartbeat, &QTimer::timeout, this, &GuiStallWatch::beat);
    m_clock.start();
    // This thread's scheduler figures: its time on a processor and its time
    // waiting for one. Opened here, so "thread-self" is the GUI thread.
    m_schedstat = ::open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
}

GuiStallWatch::~GuiStallWatch()
{
    if (m_schedstat >= 0)
        ::close(m_schedstat);
    if (m_tracing && QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(this);
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
    m_longestContext = m_activityAtBeat = m_activity;
    m_slowestEventNs = 0;
    m_atBeat = schedule();
    m_sinceBeat.start();
}

void GuiStallWatch::setActivity(const QString &name)
{
    m_activity = name;
}

void GuiStallWatch::traceEvents()
{
    if (m_tracing || !QCoreApplication::instance())
        return;
    m_tracing = true;
    m_lastEventNs = m_clock.nsecsElapsed();
    QCoreApplication::instance()->installEventFilter(this);
}

GuiStallWatch::Schedule GuiStallWatch::schedule() const
{
    char text[128] = {};
    if (m_schedstat < 0 || ::pread(m_schedstat, text, sizeof text - 1, 0) <= 0)
        return {};
    Schedule now;
    long long running = 0, waiting = 0;
    if (std::sscanf(text, "%lld %lld", &running, &waiting) == 2)
        now = {running, waiting};
    return now;
}

bool GuiStallWatch::eventFilter(QObject *watched, QEvent *event)
{
    // The time from one event's start to the next one's is the first one's
    // cost, give or take the loop's own idle wait (at most a heartbeat).
    const qint64 now = m_clock.nsecsElapsed();
    if (now - m_lastEventNs > m_slowestEventNs) {
        m_slowestEventNs = now - m_lastEventNs;
        m_slowestEvent = m_lastEvent;
    }
    m_lastEventNs = now;
    const QObject *owner = watched->parent();
    if (event->type() == QEvent::Timer && watched == &m_heartbeat)
        owner = this;
    m_lastEvent = {watched->metaObject()->className(), owner ? owner->metaObject()->className() : nullptr,
        int(event->type())};
    return false;
}

void GuiStallWatch::beat()
{
    // A beat due every period that came this late: the loop was busy or blocked meanwhile.
    const qint64 lateNs = m_sinceBeat.nsecsElapsed() - qint64(m_periodMs) * 1'000'000;
    const Schedule now = schedule();
    if (lateNs > m_longestNs) {
        m_longestNs = lateNs;
        m_longestContext = m_activityAtBeat == m_activity ? m_activity : m_activityAtBeat + QStringLiteral(" -> ") + m_activity;
        if (m_tracing && m_slowestEvent.receiver) {
            const char *type = QMetaEnum::fromType<QEvent::Type>().valueToKey(m_slowestEvent.type);
            m_longestContext += QStringLiteral("; slowest event %1 ms: %2 to %3%4")
                                    .arg(m_slowestEventNs / 1'000'000)
                                    .arg(type ? QLatin1String(type) : QString::number(m_slowestEvent.type))
                                    .arg(QLatin1String(m_slowestEvent.receiver))
                                    .arg(m_slowestEvent.owner
                                            ? QStringLiteral(" (in %1)").arg(QLatin1String(m_slowestEvent.owner))
                                            : QString());
        }
        // The rest of the stall the thread slept: on a reply, a lock or the disk.
        m_longestContext += QStringLiteral("; thread ran %1 ms, waited for a processor %2 ms")
                                .arg((now.runningNs - m_atBeat.runningNs) / 1'000'000)
                                .arg((now.waitingNs - m_atBeat.waitingNs) / 1'000'000);
    }
    m_activityAtBeat = m_activity;
    m_slowestEventNs = 0;
    m_atBeat = now;
    m_sinceBeat.start();
}

qint64 GuiStallWatch::longestStallMs() const
{
    const qint64 pendingNs = m_heartbeat.isActive() ? m_sinceBeat.nsecsElapsed() - qint64(m_periodMs) * 1'000'000 : 0;
    return std::max(m_longestNs, pendingNs) / 1'000'000;
}

QString GuiStallWatch::longestStallContext() const
{
    return m_longestContext;
}

} // namespace dictora
