#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

namespace dictora {

// Measures how long the thread it lives on (the GUI thread) went without
// serving its event loop: a fine-grained heartbeat timer notes every gap
// beyond its period. For diagnostics and benchmarks; it costs a wake-up
// every few milliseconds, so it runs only when asked for.
class GuiStallWatch : public QObject {
    Q_OBJECT
public:
    explicit GuiStallWatch(int periodMs = 2, QObject *parent = nullptr);
    ~GuiStallWatch() override;

    void start();
    void stop();
    // Starts a new measuring span; the longest stall is of this span only.
    void reset();
    // Longest time, in milliseconds, the event loop was late since reset().
    qint64 longestStallMs() const;

    // Names what the program is busy with from now on, for the report below.
    void setActivity(const QString &name);
    // Times every event the thread delivers, so that a stall names the one
    // that took longest. Costs two clock reads per event.
    void traceEvents();
    // Where the longest stall happened: the activity when it began (and when
    // it ended, if that differs), the slowest event within it when traced,
    // and how long the thread ran and waited for a processor meanwhile (the
    // rest it slept: on a reply, a lock or the disk).
    QString longestStallContext() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    struct EventNote {
        const char *receiver = nullptr; // class names: static strings, safe after the object is gone
        const char *owner = nullptr;
        int type = 0;
    };
    struct Schedule {
        qint64 runningNs = 0;
        qint64 waitingNs = 0; // runnable, but another thread had the processor
    };
    void beat();
    Schedule schedule() const;

    QTimer m_heartbeat;
    QElapsedTimer m_sinceBeat;
    qint64 m_longestNs = 0;
    int m_periodMs;
    int m_schedstat = -1;
    Schedule m_atBeat;
    QString m_activity;
    QString m_activityAtBeat; // what was going on when the loop last came round
    QString m_longestContext;

    bool m_tracing = false;
    QElapsedTimer m_clock;
    qint64 m_lastEventNs = 0;
    EventNote m_lastEvent;
    qint64 m_slowestEventNs = 0; // since the last beat
    EventNote m_slowestEvent;
};

} // namespace dictora
