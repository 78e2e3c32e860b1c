#pragma once

#include <QElapsedTimer>
#include <QObject>
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

    void start();
    void stop();
    // Starts a new measuring span; the longest stall is of this span only.
    void reset();
    // Longest time, in milliseconds, the event loop was late since reset().
    qint64 longestStallMs() const;

private:
    void beat();

    QTimer m_heartbeat;
    QElapsedTimer m_sinceBeat;
    qint64 m_longestNs = 0;
    int m_periodMs;
};

} // namespace dictora
