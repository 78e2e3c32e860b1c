#include "audio/AudioCaptureThread.h"

#include "core/Error.h"

#include <QMetaObject>
#include <QPointer>
#include <QTimer>

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
    // Requests already queued run first; the service stops any recording as
    // it is deleted on its own thread.
    m_thread.quit();
    m_thread.wait();
}

template<typename Work, typename Done>
void AudioCaptureThread::request(Work work, Done done, int delayMs)
{
    QPointer<AudioCaptureThread> self(this);
    auto run = [self, service = m_service, work = std::move(work), done = std::move(done)]() mutable {
        auto result = work(*service);
        if (!self)
            return;
        QMetaObject::invokeMethod(self.data(), [done = std::move(done), result = std::move(result)]() mutable {
            if (done)
                done(std::move(result));
        }, Qt::QueuedConnection);
    };
    QMetaObject::invokeMethod(m_service, [service = m_service, delayMs, run = std::move(run)]() mutable {
        if (delayMs > 0)
            QTimer::singleShot(delayMs, service, std::move(run));
        else
            run();
    }, Qt::QueuedConnection);
}

void AudioCaptureThread::start(AudioMeterCallback onMeterLevels, AudioSampleSink onSamples, Started done)
{
    request([onMeterLevels = std::move(onMeterLevels), onSamples = std::move(onSamples), context = this](
                AudioCaptureService &service) mutable -> std::optional<QString> {
        try {
            service.setSampleSink(std::move(onSamples));
            service.start(std::move(onMeterLevels), context);
            return std::nullopt;
        } catch (...) {
            return errorMessage(std::current_exception());
        }
    }, std::move(done));
}

void AudioCaptureThread::stop(Stopped done, int tailMilliseconds)
{
    request([](AudioCaptureService &service) { return service.stop(); }, std::move(done), tailMilliseconds);
}

void AudioCaptureThread::cancel()
{
    QMetaObject::invokeMethod(m_service, [service = m_service] { service->cancel(); }, Qt::QueuedConnection);
}

void AudioCaptureThread::requestPermission(Answered done)
{
    request([](AudioCaptureService &service) { return service.requestMicrophonePermission(); }, std::move(done));
}

void AudioCaptureThread::checkStatus(StatusDone done)
{
    request([](AudioCaptureService &service) { return service.microphoneStatus(); }, std::move(done));
}

void AudioCaptureThread::setChosenSource(const QString &name)
{
    QMetaObject::invokeMethod(m_service, [service = m_service, name] { service->setChosenSource(name); },
        Qt::QueuedConnection);
}

void AudioCaptureThread::listSources(SourcesDone done)
{
    request([](AudioCaptureService &service) { return service.sources(); }, std::move(done));
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
    connect(m_sourcesSettle, &QTimer::timeout, this, [this, changed] { listSources(changed); });
    // The service, and with it the engine, is gone before this object's children are.
    QMetaObject::invokeMethod(m_service, [service = m_service, settle = m_sourcesSettle] {
        service->engine().watchSources([settle] {
            QMetaObject::invokeMethod(settle, [settle] { settle->start(); }, Qt::QueuedConnection);
        });
    }, Qt::QueuedConnection);
}

} // namespace dictora
