#include "speech/StreamingModelDownloader.h"

#include "core/Error.h"
#include "speech/AccuracyModelError.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QPromise>
#include <QTimer>

#include <memory>
#include <optional>

#include <unistd.h>

namespace dictora {

namespace {

bool isRedirect(QNetworkReply *reply)
{
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    return code >= 300 && code <= 399
        && (reply->attribute(QNetworkRequest::RedirectionTargetAttribute).isValid() || reply->hasRawHeader("Location"));
}

} // namespace

// The transfer itself; every member is used on the downloader's thread only.
class ModelDownloadSession : public QObject {
public:
    ModelDownloadSession(QString destination, qint64 contractBytes, StreamingModelDownloader::Progress progress,
        StreamingModelDownloader::TimeLimits limits)
        : m_destination(std::move(destination)), m_contractBytes(contractBytes), m_defaultProgress(std::move(progress)),
          m_limits(limits)
    {
    }

    // `progress`, when set, replaces the constructor's for this transfer.
    void begin(const QUrl &url, std::shared_ptr<QPromise<void>> promise, StreamingModelDownloader::Progress progress);
    void cancel();

private:
    void onMetaData();
    void onReadyRead();
    void onFinished();
    bool acceptResponse(); // false once the transfer has failed
    void fail(std::exception_ptr error);
    void succeed();
    void closeFile();
    void releaseReply();

    const QString m_destination;
    const qint64 m_contractBytes;
    const StreamingModelDownloader::Progress m_defaultProgress;
    StreamingModelDownloader::Progress m_progress;
    const StreamingModelDownloader::TimeLimits m_limits;

    QNetworkAccessManager *m_network = nullptr;
    QPointer<QNetworkReply> m_reply;
    QTimer *m_resourceTimer = nullptr;
    QFile m_file;
    std::shared_ptr<QPromise<void>> m_promise;
    qint64 m_received = 0;
    qint64 m_expected = 0;
    bool m_responseAccepted = false;
    bool m_resourceTimedOut = false;
    bool m_cancelled = false;
};

void ModelDownloadSession::begin(
    const QUrl &url, std::shared_ptr<QPromise<void>> promise, StreamingModelDownloader::Progress progress)
{
    if (m_promise) {
        promise->setException(std::make_exception_ptr(Error(QStringLiteral("A model download is already running."))));
        promise->finish();
        return;
    }
    m_promise = std::move(promise);
    m_progress = progress ? std::move(progress) : m_defaultProgress;
    m_received = 0;
    m_expected = 0;
    m_responseAccepted = false;
    m_resourceTimedOut = false;
    m_cancelled = false;

    m_file.setFileName(m_destination);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        fail(std::make_exception_ptr(Error(QStringLiteral("The model download could not be written to %1: %2")
                                               .arg(m_destination, m_file.errorString()))));
        return;
    }

    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    QNetworkRequest request(url);
    // The model host answers with a redirect to a storage host.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(int(m_limits.request.count()));
    // A transparently decompressed body would not match Content-Length.
    request.setRawHeader("Accept-Encoding", "identity");
    m_reply = m_network->get(request);
    m_reply->setReadBufferSize(StreamingModelDownloader::kReadBufferBytes);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &ModelDownloadSession::onMetaData);
    connect(m_reply, &QNetworkReply::readyRead, this, &ModelDownloadSession::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &ModelDownloadSession::onFinished);

    if (!m_resourceTimer) {
        m_resourceTimer = new QTimer(this);
        m_resourceTimer->setSingleShot(true);
        connect(m_resourceTimer, &QTimer::timeout, this, [this] {
            m_resourceTimedOut = true;
            if (m_reply)
                m_reply->abort();
        });
    }
    m_resourceTimer->start(m_limits.resource);
}

void ModelDownloadSession::cancel()
{
    if (!m_promise)
        return;
    m_cancelled = true;
    if (m_reply)
        m_reply->abort();
    if (m_promise) // abort() normally finishes it synchronously
        fail(std::make_exception_ptr(Error(QStringLiteral("The model download was cancelled."))));
}

bool ModelDownloadSession::acceptResponse()
{
    if (m_responseAccepted)
        return true;
    if (!m_promise || !m_reply)
        return false;
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        fail(std::make_exception_ptr(AccuracyModelError::invalidResponse()));
        return false;
    }
    const int code = status.toInt();
    if (code < 200 || code > 299) {
        fail(std::make_exception_ptr(AccuracyModelError::serverStatus(code)));
        return false;
    }
    const qint64 length = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
    m_expected = length >= 1 ? length : m_contractBytes;
    m_responseAccepted = true;
    return true;
}

void ModelDownloadSession::onMetaData()
{
    // A redirect being followed is not the final response.
    if (m_reply && isRedirect(m_reply))
        return;
    acceptResponse();
}

void ModelDownloadSession::onReadyRead()
{
    if (!m_promise || !m_reply)
        return;
    if (isRedirect(m_reply)) {
        m_reply->readAll(); // body of a redirect, never part of the file
        return;
    }
    if (!acceptResponse())
        return;
    while (m_reply && m_reply->bytesAvailable() > 0) {
        const QByteArray chunk = m_reply->read(StreamingModelDownloader::kReadBufferBytes);
        if (chunk.isEmpty())
            break;
        if (m_file.write(chunk) != chunk.size()) {
            fail(std::make_exception_ptr(Error(QStringLiteral("The model download could not be written to %1: %2")
                                                   .arg(m_destination, m_file.errorString()))));
            return;
        }
        m_received += chunk.size();
        if (m_progress)
            m_progress(m_received, m_expected);
    }
}

void ModelDownloadSession::onFinished()
{
    if (!m_promise || !m_reply)
        return;
    const QNetworkReply::NetworkError error = m_reply->error();
    if (error == QNetworkReply::NoError || m_responseAccepted)
        onReadyRead(); // whatever is still buffered
    if (!m_promise)
        return;

    const QString errorText = m_reply->errorString();
    if (error != QNetworkReply::NoError) {
        if (m_cancelled) {
            fail(std::make_exception_ptr(Error(QStringLiteral("The model download was cancelled."))));
        } else if (m_resourceTimedOut || error == QNetworkReply::TimeoutError
            || (error == QNetworkReply::OperationCanceledError && !m_cancelled)) {
            fail(std::make_exception_ptr(Error(QStringLiteral("The model server stopped answering."))));
        } else if (m_responseAccepted && error == QNetworkReply::RemoteHostClosedError) {
            // The body ended early: say how far it got.
            fail(std::make_exception_ptr(AccuracyModelError::incompleteDownload(m_received, m_expected)));
        } else if (!m_responseAccepted && m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
            acceptResponse(); // an HTTP error status
            if (m_promise)
                fail(std::make_exception_ptr(Error(QStringLiteral("The model download failed: %1").arg(errorText))));
        } else {
            fail(std::make_exception_ptr(Error(QStringLiteral("The model download failed: %1").arg(errorText))));
        }
        return;
    }
    if (!acceptResponse())
        return;
    if (m_received != m_expected) {
        fail(std::make_exception_ptr(AccuracyModelError::incompleteDownload(m_received, m_expected)));
        return;
    }
    succeed();
}

void ModelDownloadSession::closeFile()
{
    if (!m_file.isOpen())
        return;
    m_file.flush();
    ::fsync(m_file.handle());
    m_file.close();
}

void ModelDownloadSession::releaseReply()
{
    if (m_resourceTimer)
        m_resourceTimer->stop();
    if (QNetworkReply *reply = m_reply) {
        m_reply = nullptr;
        reply->disconnect(this);
        if (reply->isRunning())
            reply->abort();
        reply->deleteLater();
    }
}

void ModelDownloadSession::fail(std::exception_ptr error)
{
    auto promise = std::move(m_promise);
    m_promise.reset();
    releaseReply();
    closeFile();
    if (promise) {
        promise->setException(error);
        promise->finish();
    }
}

void ModelDownloadSession::succeed()
{
    auto promise = std::move(m_promise);
    m_promise.reset();
    releaseReply();
    if (!m_file.flush() || ::fsync(m_file.handle()) != 0) {
        const QString why = m_file.errorString();
        m_file.close();
        promise->setException(std::make_exception_ptr(
            Error(QStringLiteral("The model download could not be written to %1: %2").arg(m_destination, why))));
        promise->finish();
        return;
    }
    m_file.close();
    promise->finish();
}

StreamingModelDownloader::StreamingModelDownloader(QString destinationPath, qint64 contractBytes, Progress progress)
    : StreamingModelDownloader(std::move(destinationPath), contractBytes, std::move(progress), TimeLimits{})
{
}

StreamingModelDownloader::StreamingModelDownloader(
    QString destinationPath, qint64 contractBytes, Progress progress, TimeLimits limits)
{
    m_thread.setObjectName(QStringLiteral("model-download"));
    m_session = new ModelDownloadSession(std::move(destinationPath), contractBytes, std::move(progress), limits);
    m_session->moveToThread(&m_thread);
    m_thread.start();
}

StreamingModelDownloader::~StreamingModelDownloader()
{
    // Queued behind any request still on its way, and the thread's last
    // event; the wait is for the owner's end only.
    QMetaObject::invokeMethod(m_session, [session = m_session] {
        session->cancel();
        delete session;
        QThread::currentThread()->quit();
    }, Qt::QueuedConnection);
    m_thread.wait();
}

QFuture<void> StreamingModelDownloader::download(const QUrl &url, Progress progress)
{
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    QMetaObject::invokeMethod(m_session, [session = m_session, url, promise, progress = std::move(progress)]() mutable {
        session->begin(url, promise, std::move(progress));
    }, Qt::QueuedConnection);
    return future;
}

void StreamingModelDownloader::cancel()
{
    QMetaObject::invokeMethod(m_session, [session = m_session] { session->cancel(); }, Qt::QueuedConnection);
}

} // namespace dictora
