#pragma once

#include "audio/AudioBuffer.h"

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
// the server's default input source while running. Deinterleaved float
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

    // Asks the server for its default input source. Never throws.
    SourceInfo defaultSource();

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
