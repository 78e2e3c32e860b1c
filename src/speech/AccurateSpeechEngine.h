#pragma once

#include "core/Error.h"

#include <QFuture>
#include <QList>
#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

struct whisper_context;

namespace dictora {

// Recognised text of one recording and the time recognition took.
struct AccurateSpeechResult {
    QString text;
    qint64 durationMilliseconds = 0;

    friend bool operator==(const AccurateSpeechResult &, const AccurateSpeechResult &) = default;
};

class AccurateSpeechError : public Error {
public:
    enum class Case { transcriptionFailed, modelCouldNotLoad, modelNotLoaded, invalidAudioSampleRate };

    static AccurateSpeechError transcriptionFailed(qint32 code);
    static AccurateSpeechError modelCouldNotLoad();
    static AccurateSpeechError modelNotLoaded();
    static AccurateSpeechError invalidAudioSampleRate();

    Case errorCase() const { return m_case; }
    qint32 code() const { return m_code; }

private:
    AccurateSpeechError(Case errorCase, qint32 code, QString description);
    Case m_case;
    qint32 m_code;
};

// Runs work items one at a time, in submission order, on one named thread.
// The destructor lets queued items finish, so every waiting caller is resumed.
class SerialWorkQueue {
public:
    explicit SerialWorkQueue(const char *threadName);
    ~SerialWorkQueue();
    SerialWorkQueue(const SerialWorkQueue &) = delete;
    SerialWorkQueue &operator=(const SerialWorkQueue &) = delete;

    void post(std::function<void()> work);

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_items;
    bool m_stopping = false;
    std::thread m_thread;
};

// Local recognition over whisper.cpp. One model at a time; every library call
// happens on the private queue, so loads and recognitions never overlap.
// The futures may be awaited from any thread; each finishes exactly once,
// with a value or an AccurateSpeechError.
class AccurateSpeechEngine {
public:
    static constexpr int kSampleRate = 16000;
    static constexpr const char *kQueueLabel = "com.dictora.app.accurate-speech";

    AccurateSpeechEngine();
    ~AccurateSpeechEngine();
    AccurateSpeechEngine(const AccurateSpeechEngine &) = delete;
    AccurateSpeechEngine &operator=(const AccurateSpeechEngine &) = delete;

    // Frees any loaded model first, so a failed reload leaves none.
    QFuture<void> load(const QString &modelPath);
    // The samples are shared with (or moved to) the queue, never copied.
    QFuture<AccurateSpeechResult> transcribe(const QList<float> &samples, int sampleRate);
    QFuture<AccurateSpeechResult> transcribe(std::vector<float> samples, int sampleRate);

    // Recognition threads for a machine with this many processors: two are
    // left free, never fewer than 2 nor more than 8 are used.
    static int threadCountFor(int processorCount);
    static int activeProcessorCount();
    // Concatenates segment texts as the library returns them (UTF-8, each with
    // its own leading space) and trims the result.
    static QString joinSegments(const QList<QByteArray> &segments);

private:
    // `owner` keeps `samples` alive until the work item has run.
    QFuture<AccurateSpeechResult> enqueue(std::shared_ptr<const void> owner, const float *samples, qsizetype count, int sampleRate);

    whisper_context *m_context = nullptr; // only touched on m_queue
    SerialWorkQueue m_queue;              // declared last: drained before the context is freed
};

} // namespace dictora
