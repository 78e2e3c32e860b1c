#include "audio/AudioCaptureThread.h"

#include <QMetaObject>
#include <QPromise>
#include <QTimer>

#include <memory>
#include <type_traits>

namespace dictora {

AudioCaptureThread::AudioCaptureThread(RuntimeLog *log, QObject *parent)
    : QObject(parent), m_service(new AudioCaptureService(log))
{
    m_thread.setObjectName(QStringLiteral("dictora-microphone"));
    m_service->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_service, &QObject::deleteLater);
    connect(m_service, &AudioCaptureService::notice, this, &AudioCaptureThread::notice, Qt::QueuedConnection);
    m_thread.start();
}

AudioCaptureThread::~AudioCaptureThread()
{
    // Requests the thread has not reached are dropped (their futures are
    // cancelled); the service stops any recording as it is deleted on its
    // own thread.
    m_thread.quit();
    m_thread.wait();
}

template<typename Work>
auto AudioCaptureThread::request(Work work, int delayMs)
{
    using Result = std::invoke_result_t<Work &, AudioCaptureService &>;
    auto promise = std::make_shared<QPromise<Result>>();
    promise->start();
    QFuture<Result> future = promise->future();
    auto run = [service = m_service, work = std::move(work), promise]() mutable {
        try {
            if constexpr (std::is_void_v<Result>)
                work(*service);
            else
                promise->addResult(work(*service));
        } catch (...) {
            promise->setException(std::current_exception());
        }
        promise->finish();
    };
    QMetaObject::invokeMethod(m_service, [service = m_service, delayMs, run = std::move(run)]() mutable {
        if (delayMs > 0)
            QTimer::singleShot(delayMs, service, std::move(run));
        else
            run();
    }, Qt::QueuedConnection);
    return future;
}

QFuture<void> AudioCaptureThread::start(AudioMeterCallback onMeterLevels, AudioSampleSink onSamples)
{
    return request([onMeterLevels = std::move(onMeterLevels), onSamples = std::move(onSamples), context = this](
                       AudioCaptureService &service) mutable {
        service.setSampleSink(std::move(onSamples));
        service.start(std::move(onMeterLevels), context);
    });
}

QFuture<CapturedAudioResult> AudioCaptureThread::stop(int tailMilliseconds)
{
    return request([](AudioCaptureService &service) { return service.stop(); }, tailMilliseconds);
}

void AudioCaptureThread::cancel()
{
    QMetaObject::invokeMethod(m_service, [service = m_service] { service->cancel(); }, Qt::QueuedConnection);
}

QFuture<bool> AudioCaptureThread::requestPermission()
{
    return request([](AudioCaptureService &service) { return service.requestMicrophonePermission(); });
}

QFuture<AudioCaptureService::MicrophoneStatus> AudioCaptureThread::checkStatus()
{
    return request([](AudioCaptureService &service) { return service.microphoneStatus(); });
}

void AudioCaptureThread::setChosenSource(const QString &name)
{
    QMetaObject::invokeMethod(m_service, [service = m_service, name] { service->setChosenSource(name); },
        Qt::QueuedConnection);
}

QFuture<QList<PulseCaptureEngine::Source>> AudioCaptureThread::listSources()
{
    return request([](AudioCaptureService &service) { return service.sources(); });
}

void AudioCaptureThread::watchSources(SourcesDone changed)
{
    // A plugged device brings several events at once (the source, the
    // default): one listing once they have settled.
    if (!m_sourcesSettle) {
        m_sourcesSettle = new QTimer(this);
        m_sourcesSettle->setSingleShot(true);
        m_sourcesSettle->setInterval(150);
    }
    m_sourcesSettle->disconnect();
    connect(m_sourcesSettle, &QTimer::timeout, this, [this, changed] {
        listSources().then(this, [changed](QFuture<QList<PulseCaptureEngine::Source>> listed) {
            try {
                changed(listed.result());
            } catch (...) {
                // The listing failed (no server): the next change lists again.
            }
        });
    });
    // The service, and with it the engine, is gone before this object's children are.
    QMetaObject::invokeMethod(m_service, [service = m_service, settle = m_sourcesSettle] {
        service->engine().watchSources([settle] {
            QMetaObject::invokeMethod(settle, [settle] { settle->start(); }, Qt::QueuedConnection);
        });
    }, Qt::QueuedConnection);
}

} // namespace dictora
