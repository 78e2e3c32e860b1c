#include "audio/PulseCaptureEngine.h"

#include "audio/DictoraAudioCaptureError.h"
#include "core/Async.h"
#include "core/RuntimeLog.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <new>
#include <string>

namespace dictora {

namespace {

struct LoopDeleter {
    void operator()(pa_threaded_mainloop *loop) const
    {
        pa_threaded_mainloop_stop(loop); // must not hold the loop's lock here
        pa_threaded_mainloop_free(loop);
    }
};
struct ContextDeleter {
    void operator()(pa_context *context) const
    {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};
struct StreamDeleter {
    void operator()(pa_stream *stream) const
    {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_moved_callback(stream, nullptr, nullptr);
        if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
            pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
};
struct OperationDeleter {
    void operator()(pa_operation *operation) const { pa_operation_unref(operation); }
};

using LoopPtr = std::unique_ptr<pa_threaded_mainloop, LoopDeleter>;
using ContextPtr = std::unique_ptr<pa_context, ContextDeleter>;
using StreamPtr = std::unique_ptr<pa_stream, StreamDeleter>;
using OperationPtr = std::unique_ptr<pa_operation, OperationDeleter>;

class LoopLock {
public:
    explicit LoopLock(pa_threaded_mainloop *loop) : m_loop(loop) { pa_threaded_mainloop_lock(m_loop); }
    ~LoopLock() { pa_threaded_mainloop_unlock(m_loop); }
    LoopLock(const LoopLock &) = delete;
    LoopLock &operator=(const LoopLock &) = delete;

private:
    pa_threaded_mainloop *m_loop;
};

qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

qint64 threadCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

QString errorText(pa_context *context)
{
    return QString::fromUtf8(pa_strerror(context ? pa_context_errno(context) : PA_ERR_UNKNOWN));
}

} // namespace

constexpr double kFragmentSeconds = 0.020;

struct PulseCaptureEngine::Private {
    RuntimeLog *log = nullptr;
    int timeoutMs = 3000;
    LoopPtr loop;
    bool loopStarted = false;
    ContextPtr context;
    StreamPtr stream;
    Tap tap;
    AudioFormat tapFormat;
    pa_channel_map sourceMap{};
    bool sourceMapValid = false;
    bool running = false;
    std::string chosenSource;    // empty: the server's default
    std::string recordingSource; // what the next stream connects to; empty: the default
    std::function<void(const QString &)> moved;
    std::function<void()> sourcesChanged;
    bool subscribed = false; // on the current context
    AudioBuffer scratch;
    Statistics stats;

    void write(const QString &message) const
    {
        if (log)
            log->write(message);
    }

    // From a libpulse callback, which holds the loop lock: the file write
    // happens elsewhere, so the capture thread never waits on the disk.
    void writeLater(const QString &message) const
    {
        if (RuntimeLog *target = log)
            runElsewhere([target, message] { target->write(message); });
    }

    bool ensureLoop()
    {
        if (!loop)
            return false;
        if (!loopStarted)
            loopStarted = pa_threaded_mainloop_start(loop.get()) >= 0;
        return loopStarted;
    }

    // Waits on the loop (lock held) until done() or the timeout.
    bool waitUntil(const std::function<bool()> &done)
    {
        if (done())
            return true;
        struct Timer {
            pa_threaded_mainloop *loop;
            bool expired;
        } timer{loop.get(), false};
        pa_mainloop_api *api = pa_threaded_mainloop_get_api(loop.get());
        timeval when{};
        pa_gettimeofday(&when);
        pa_timeval_add(&when, pa_usec_t(timeoutMs) * PA_USEC_PER_MSEC);
        pa_time_event *event = api->time_new(
            api, &when,
            [](pa_mainloop_api *, pa_time_event *, const timeval *, void *userdata) {
                auto *t = static_cast<Timer *>(userdata);
                t->expired = true;
                pa_threaded_mainloop_signal(t->loop, 0);
            },
            &timer);
        while (!done() && !timer.expired)
            pa_threaded_mainloop_wait(loop.get());
        api->time_free(event);
        return done();
    }

    bool waitFor(pa_operation *raw)
    {
        OperationPtr operation(raw);
        if (!operation)
            return false;
        const bool finished = waitUntil([&] { return pa_operation_get_state(operation.get()) != PA_OPERATION_RUNNING; });
        if (!finished)
            pa_operation_cancel(operation.get());
        return finished && pa_operation_get_state(operation.get()) == PA_OPERATION_DONE;
    }

    // Connects (or reconnects after the server went away). Lock held. A
    // context still connecting (a server starting at login) is waited for,
    // never replaced: someone may be waiting on it already.
    bool ensureContext(QString *error)
    {
        if (context) {
            const pa_context_state_t state = pa_context_get_state(context.get());
            if (state == PA_CONTEXT_READY)
                return true;
            if (!PA_CONTEXT_IS_GOOD(state))
                context.reset();
        }
        if (!context) {
            pa_context *raw = pa_context_new(pa_threaded_mainloop_get_api(loop.get()), "Dictora");
            if (!raw) {
                *error = QStringLiteral("out of memory");
                return false;
            }
            context.reset(raw);
            subscribed = false;
            pa_context_set_state_callback(raw, &Private::contextState, this);
            if (pa_context_connect(raw, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
                *error = errorText(raw);
                context.reset();
                return false;
            }
        }
        pa_context *raw = context.get();
        const bool settled = waitUntil([raw] {
            const pa_context_state_t state = pa_context_get_state(raw);
            return !PA_CONTEXT_IS_GOOD(state) || state == PA_CONTEXT_READY;
        });
        if (!settled) {
            // Still connecting: keep it for the next call rather than start over.
            *error = QStringLiteral("timed out");
            return false;
        }
        if (pa_context_get_state(raw) != PA_CONTEXT_READY) {
            *error = errorText(raw);
            context.reset();
            return false;
        }
        if (sourcesChanged && !subscribed) {
            subscribed = true;
            pa_context_set_subscribe_callback(raw, &Private::subscription, this);
            if (pa_operation *op = pa_context_subscribe(raw,
                    pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER), nullptr, nullptr))
                pa_operation_unref(op);
        }
        return true;
    }

    static void subscription(pa_context *, pa_subscription_event_type_t type, uint32_t, void *userdata)
    {
        auto *d = static_cast<Private *>(userdata);
        // A source's own changes (volume, suspended) come often and change no list.
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SOURCE
            && (type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_CHANGE)
            return;
        if (d->sourcesChanged)
            d->sourcesChanged();
    }

    // The server hands over whatever it has (often 5 ms pieces); the tap gets
    // whole fragments, so each buffer's meter quarters span a useful time.
    // interleaved == nullptr stands for silence.
    void deliver(const float *interleaved, size_t bytes)
    {
        const int channels = tapFormat.channelCount;
        if (channels <= 0)
            return;
        const quint32 frames = quint32(bytes / (sizeof(float) * size_t(channels)));
        if (frames == 0)
            return;
        const quint32 pending = scratch.format() == tapFormat ? scratch.frameLength() : 0;
        if (scratch.format() != tapFormat || scratch.frameCapacity() < pending + frames) {
            try {
                AudioBuffer bigger(tapFormat, std::max(pending + frames, 2 * fragmentFrames()));
                for (int c = 0; c < channels; ++c)
                    std::copy_n(scratch.floatChannelData(c), pending, bigger.floatChannelData(c));
                bigger.setFrameLength(pending);
                scratch = std::move(bigger);
            } catch (const std::bad_alloc &) {
                return;
            }
        }
        for (int c = 0; c < channels; ++c) {
            float *out = scratch.floatChannelData(c) + pending;
            if (!interleaved)
                std::fill_n(out, frames, 0.0f);
            else
                for (quint32 f = 0; f < frames; ++f)
                    out[f] = interleaved[size_t(f) * size_t(channels) + size_t(c)];
        }
        scratch.setFrameLength(pending + frames);
        if (scratch.frameLength() >= fragmentFrames())
            handOver();
    }

    quint32 fragmentFrames() const { return std::max<quint32>(1, quint32(tapFormat.sampleRate * kFragmentSeconds)); }

    void handOver()
    {
        if (scratch.frameLength() == 0)
            return;
        if (stats.buffers == 0)
            stats.firstBufferNs = steadyNs();
        ++stats.buffers;
        stats.frames += scratch.frameLength();
        if (tap)
            tap(scratch);
        scratch.setFrameLength(0);
        if (pa_threaded_mainloop_in_thread(loop.get()))
            stats.threadCpuNs = threadCpuNs();
    }

    static void contextState(pa_context *c, void *userdata)
    {
        auto *d = static_cast<Private *>(userdata);
        const pa_context_state_t state = pa_context_get_state(c);
        if (d->running && (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED))
            d->writeLater(QStringLiteral("sound server connection lost while recording reason=%1").arg(errorText(c)));
        pa_threaded_mainloop_signal(d->loop.get(), 0);
    }

    static void streamState(pa_stream *s, void *userdata)
    {
        auto *d = static_cast<Private *>(userdata);
        const pa_stream_state_t state = pa_stream_get_state(s);
        if (state == PA_STREAM_READY)
            d->stats.threadCpuAtStartNs = threadCpuNs();
        if (d->running && state == PA_STREAM_FAILED)
            d->writeLater(QStringLiteral("microphone lost while recording reason=%1 frames=%2")
                         .arg(errorText(pa_stream_get_context(s)))
                         .arg(d->stats.frames));
        pa_threaded_mainloop_signal(d->loop.get(), 0);
    }

    static void streamRead(pa_stream *s, size_t, void *userdata)
    {
        auto *d = static_cast<Private *>(userdata);
        for (;;) {
            const size_t readable = pa_stream_readable_size(s);
            if (readable == 0 || readable == size_t(-1))
                break;
            const void *data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(s, &data, &bytes) < 0 || bytes == 0)
                break;
            // A hole (the server had nothing for that span) becomes silence,
            // so what follows keeps its place in time.
            if (!data)
                d->stats.holeFrames += qint64(bytes / (sizeof(float) * size_t(std::max(d->tapFormat.channelCount, 1))));
            d->deliver(static_cast<const float *>(data), bytes);
            pa_stream_drop(s);
        }
    }

    static void streamMoved(pa_stream *s, void *userdata)
    {
        auto *d = static_cast<Private *>(userdata);
        const QString source = QString::fromUtf8(pa_stream_get_device_name(s));
        d->writeLater(QStringLiteral("microphone changed while recording source=%1").arg(source));
        if (d->moved)
            d->moved(source);
    }
};

PulseCaptureEngine::PulseCaptureEngine(RuntimeLog *log, int timeoutMs)
    : d(std::make_unique<Private>())
{
    d->log = log;
    d->timeoutMs = timeoutMs;
    d->loop.reset(pa_threaded_mainloop_new());
    if (d->loop)
        pa_threaded_mainloop_set_name(d->loop.get(), "dictora-capture");
}

PulseCaptureEngine::~PulseCaptureEngine()
{
    if (!d->loop)
        return;
    {
        LoopLock lock(d->loop.get());
        d->running = false;
        d->stream.reset();
        d->context.reset();
    }
    d->loop.reset();
}

PulseCaptureEngine::SourceInfo PulseCaptureEngine::defaultSource()
{
    SourceInfo result;
    if (!d->ensureLoop()) {
        result.serverError = QStringLiteral("the capture thread could not be started");
        return result;
    }
    LoopLock lock(d->loop.get());
    if (!d->ensureContext(&result.serverError))
        return result;

    struct Query {
        Private *d;
        std::string defaultSource;
        SourceInfo *result;
        pa_channel_map map{};
        bool mapValid = false;
    } query{d.get(), {}, &result};

    const bool answered = d->waitFor(pa_context_get_server_info(
        d->context.get(),
        [](pa_context *, const pa_server_info *info, void *userdata) {
            auto *q = static_cast<Query *>(userdata);
            if (info && info->default_source_name)
                q->defaultSource = info->default_source_name;
            pa_threaded_mainloop_signal(q->d->loop.get(), 0);
        },
        &query));
    if (!answered) {
        result.serverError = QStringLiteral("the sound server did not answer: %1").arg(errorText(d->context.get()));
        return result;
    }
    result.serverAnswered = true;
    d->recordingSource.clear();
    const auto describe = [&](const std::string &name) {
        return d->waitFor(pa_context_get_source_info_by_name(
        d->context.get(), name.c_str(),
        [](pa_context *, const pa_source_info *info, int eol, void *userdata) {
            auto *q = static_cast<Query *>(userdata);
            if (info && eol == 0) {
                q->result->sourceName = QString::fromUtf8(info->name);
                q->result->format = {double(info->sample_spec.rate), int(info->sample_spec.channels), false, true};
                q->map = info->channel_map;
                q->mapValid = pa_channel_map_valid(&info->channel_map);
            }
            pa_threaded_mainloop_signal(q->d->loop.get(), 0);
        },
        &query)) && !result.sourceName.isEmpty();
    };
    if (!d->chosenSource.empty()) {
        if (describe(d->chosenSource)) {
            d->recordingSource = d->chosenSource;
        } else {
            result.chosenMissing = true;
            d->write(QStringLiteral("microphone chosen source=%1 is missing; recording from the default")
                         .arg(QString::fromStdString(d->chosenSource)));
        }
    }
    if (result.sourceName.isEmpty() && !query.defaultSource.empty())
        describe(query.defaultSource);
    d->sourceMap = query.map;
    d->sourceMapValid = query.mapValid;
    return result;
}

QList<PulseCaptureEngine::Source> PulseCaptureEngine::sources()
{
    QList<Source> found;
    if (!d->ensureLoop())
        return found;
    LoopLock lock(d->loop.get());
    QString error;
    if (!d->ensureContext(&error))
        return found;
    struct Query {
        Private *d;
        QList<Source> *found;
    } query{d.get(), &found};
    const bool answered = d->waitFor(pa_context_get_source_info_list(
        d->context.get(),
        [](pa_context *, const pa_source_info *info, int eol, void *userdata) {
            auto *q = static_cast<Query *>(userdata);
            if (info && eol == 0 && info->monitor_of_sink == PA_INVALID_INDEX)
                q->found->append({QString::fromUtf8(info->name),
                    QString::fromUtf8(info->description ? info->description : info->name)});
            if (eol != 0)
                pa_threaded_mainloop_signal(q->d->loop.get(), 0);
        },
        &query));
    if (!answered)
        found.clear();
    return found;
}

void PulseCaptureEngine::setChosenSource(const QString &name)
{
    if (!d->loop)
        return;
    LoopLock lock(d->loop.get());
    d->chosenSource = name.toStdString();
}

void PulseCaptureEngine::watchSources(std::function<void()> changed)
{
    if (!d->ensureLoop())
        return;
    LoopLock lock(d->loop.get());
    d->sourcesChanged = std::move(changed);
    QString error;
    d->ensureContext(&error); // subscribes once connected; a later call retries
}

void PulseCaptureEngine::setMovedListener(std::function<void(const QString &)> listener)
{
    if (!d->loop)
        return;
    LoopLock lock(d->loop.get());
    d->moved = std::move(listener);
}

void PulseCaptureEngine::installTap(const AudioFormat &format, Tap tap)
{
    if (!d->loop)
        return;
    LoopLock lock(d->loop.get());
    d->tapFormat = format;
    d->tap = std::move(tap);
}

void PulseCaptureEngine::removeTap()
{
    if (!d->loop)
        return;
    LoopLock lock(d->loop.get());
    if (d->running)
        d->handOver(); // the last partial fragment belongs to the recording
    d->tap = {};
}

void PulseCaptureEngine::start()
{
    if (!d->ensureLoop())
        throw AudioEngineError(QStringLiteral("The audio capture thread could not be started."));
    LoopLock lock(d->loop.get());
    if (d->running)
        return;
    QString error;
    if (!d->ensureContext(&error))
        throw AudioEngineError(QStringLiteral("The sound server could not be reached (%1).").arg(error));

    const AudioFormat &format = d->tapFormat;
    pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, uint32_t(format.sampleRate), uint8_t(format.channelCount)};
    if (!format.isUsable() || format.channelCount > int(PA_CHANNELS_MAX) || !pa_sample_spec_valid(&spec))
        throw AudioEngineError(QStringLiteral("The microphone format is not supported by the sound server."));
    pa_channel_map map{};
    if (d->sourceMapValid && d->sourceMap.channels == spec.channels)
        map = d->sourceMap;
    else
        pa_channel_map_init_extend(&map, spec.channels, PA_CHANNEL_MAP_DEFAULT);

    pa_stream *raw = pa_stream_new(d->context.get(), "Dictation", &spec, &map);
    if (!raw)
        throw AudioEngineError(QStringLiteral("The microphone could not be opened (%1).").arg(errorText(d->context.get())));
    StreamPtr stream(raw);
    pa_stream_set_state_callback(raw, &Private::streamState, d.get());
    pa_stream_set_read_callback(raw, &Private::streamRead, d.get());
    pa_stream_set_moved_callback(raw, &Private::streamMoved, d.get());

    // Small fragments: the first audio arrives quickly and the meter moves smoothly.
    pa_buffer_attr attr{};
    attr.maxlength = uint32_t(-1);
    attr.tlength = uint32_t(-1);
    attr.prebuf = uint32_t(-1);
    attr.minreq = uint32_t(-1);
    attr.fragsize = uint32_t(pa_usec_to_bytes(pa_usec_t(kFragmentSeconds * PA_USEC_PER_SEC), &spec));
    d->stats = {};
    d->scratch.setFrameLength(0);
    // No device name: the stream follows the server's default input source.
    // A chosen one that goes away hands the stream to the default.
    const char *device = d->recordingSource.empty() ? nullptr : d->recordingSource.c_str();
    if (pa_stream_connect_record(raw, device, &attr, PA_STREAM_ADJUST_LATENCY) < 0)
        throw AudioEngineError(QStringLiteral("The microphone could not be opened (%1).").arg(errorText(d->context.get())));
    const bool settled = d->waitUntil([raw] {
        const pa_stream_state_t state = pa_stream_get_state(raw);
        return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    });
    if (!settled || pa_stream_get_state(raw) != PA_STREAM_READY) {
        const QString reason = settled ? errorText(d->context.get()) : QStringLiteral("timed out");
        throw AudioEngineError(QStringLiteral("The microphone could not be opened (%1).").arg(reason));
    }
    d->stream = std::move(stream);
    d->running = true;
}

void PulseCaptureEngine::stop()
{
    if (!d->loop)
        return;
    LoopLock lock(d->loop.get());
    d->running = false;
    d->stream.reset();
}

bool PulseCaptureEngine::isRunning() const
{
    if (!d->loop)
        return false;
    LoopLock lock(d->loop.get());
    return d->running;
}

PulseCaptureEngine::Statistics PulseCaptureEngine::statistics() const
{
    if (!d->loop)
        return {};
    LoopLock lock(d->loop.get());
    return d->stats;
}

} // namespace dictora
