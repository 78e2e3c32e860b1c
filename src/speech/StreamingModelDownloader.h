#pragma once

#include <QFuture>
#include <QString>
#include <QThread>
#include <QUrl>

#include <chrono>
#include <functional>

namespace dictora {

class ModelDownloadSession;

// Fetches one file over HTTP(S) straight into a destination file, chunk by
// chunk as it arrives, so memory stays flat however large the body. The
// transfer runs on the downloader's own thread; the future finishes once,
// after the file is flushed and closed, or with an error (AccuracyModelError
// for HTTP status, length and response problems; dictora::Error otherwise).
class StreamingModelDownloader {
public:
    // Called on the download thread after each chunk is on disk.
    using Progress = std::function<void(qint64 receivedBytes, qint64 expectedBytes)>;

    struct TimeLimits {
        std::chrono::milliseconds request{120'000};    // longest silence from the server
        std::chrono::milliseconds resource{14'400'000}; // whole transfer
    };

    static constexpr qint64 kReadBufferBytes = 256 * 1024;

    // contractBytes is the length expected when the server gives none.
    StreamingModelDownloader(QString destinationPath, qint64 contractBytes, Progress progress, TimeLimits limits);
    StreamingModelDownloader(QString destinationPath, qint64 contractBytes, Progress progress);
    // Cancels a running transfer (its future fails) and waits for the thread
    // to end: for the owner's own end, not while the program runs on.
    ~StreamingModelDownloader();
    StreamingModelDownloader(const StreamingModelDownloader &) = delete;
    StreamingModelDownloader &operator=(const StreamingModelDownloader &) = delete;

    // Replaces the destination with an empty file and downloads from byte 0.
    // Requests run on the downloader's thread in the order they were made,
    // so a transfer cancelled before another begins has closed its file by
    // then. `progress`, when set, stands in for the constructor's this once.
    QFuture<void> download(const QUrl &url, Progress progress = {});
    // Ends the running transfer, if any (its future fails); never waits.
    void cancel();

private:
    QThread m_thread;
    ModelDownloadSession *m_session = nullptr; // lives on m_thread
};

} // namespace dictora
