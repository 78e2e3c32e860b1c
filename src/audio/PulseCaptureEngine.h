#pragma once

#include "audio/AudioBuffer.h"

#include <QList>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;

namespace dictora {

class RuntimeLog;

// The microphone over libpulse: one threaded main loop (the capture thread),
// one server connection kept open between recordings, and a record stream on
// the chosen input source (the server's default unless one is chosen) while
// running. Deinterleaved float
// buffers of about 20 ms reach the tap on the capture thread.
//
// All methods are for one controlling thread (AudioCaptureThread in the
// application); they block only on the local sound server and never longer
// than the timeout, so that thread must not be the GUI thread.
class PulseCaptureEngine {
public:
    using Tap = std::function<void(const AudioBuffer &)>;

    struct SourceInfo {
        bool serverAnswered = false;
        QString serverError;  // why it did not answer
        QString sourceName;   // empty when there is no default input source
        AudioFormat format;   // the source's rate and channel count, float, deinterleaved
        // A source was chosen but the server no longer has it: this is the default.
        bool chosenMissing = false;
    };

    // One input of the server's list (monitors of outputs left out).
    struct Source {
        QString name;        // the server's name, what setChosenSource() takes
        QString description; // for people
        friend bool operator==(const Source &, const Source &) = default;
    };

    // Figures for diagnostics and benchmarks; reset by each start().
    struct Statistics {
        qint64 buffers = 0;
        qint64 frames = 0;
        qint64 holeFrames = 0;        // gaps in the server's data, filled with silence
        qint64 firstBufferNs = 0;     // steady clock, 0 before the first buffer
        qint64 threadCpuNs = 0;       // capture thread CPU time at its last buffer
        qint64 threadCpuAtStartNs = 0; // ... when the stream became ready
    };

    explicit PulseCaptureEngine(RuntimeLog *log = nullptr, int timeoutMs = 3000);
    ~PulseCaptureEngine();
    PulseCaptureEngine(const PulseCaptureEngine &) = delete;
    PulseCaptureEngine &operator=(const PulseCaptureEngine &) = delete;

    // Asks the server for the source the next recording uses: the chosen one
    // while the server has it, otherwise its default. Never throws.
    SourceInfo defaultSource();
    // The server's inputs; empty when it does not answer. Never throws.
    QList<Source> sources();
    // Empty: recordings follow the server's default input (also when it
    // changes). Takes effect at the next start.
    void setChosenSource(const QString &name);
    // Called on the capture thread when the server moves a running recording
    // to another source (the chosen one went away), with that source's name.
    void setMovedListener(std::function<void(const QString &source)> listener);
    // From now on `changed` is called, on the sound server's thread, when an
    // input comes or goes or the default changes. Connects if need be.
    void watchSources(std::function<void()> changed);

    // The format the tap receives buffers in; the stream asks the server for it.
    void installTap(const AudioFormat &format, Tap tap);
    // After this returns no tap call is running or will run.
    void removeTap();

    // Opens the record stream and returns once the server records into it.
    // Throws AudioEngineError.
    void start();
    void stop();
    bool isRunning() const;

    Statistics statistics() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace dictora
