#include "core/RuntimeLog.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace dictora {

RuntimeLog::RuntimeLog(QString filePath) : m_filePath(std::move(filePath)) {}

QString RuntimeLog::lineFor(const QString &message)
{
    return QLatin1Char('[') + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + QLatin1String("] ")
        + message + QLatin1Char('\n');
}

void RuntimeLog::write(const QString &message) const
{
    const QByteArray bytes = lineFor(message).toUtf8();
    if (bytes.isEmpty())
        return;
    QMutexLocker lock(&m_mutex);
    const QString folder = QFileInfo(m_filePath).absolutePath();
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "Dictora log error: cannot create folder %s: %s", qPrintable(folder), bytes.constData());
        return;
    }
    const QByteArray path = QFile::encodeName(m_filePath);
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::fprintf(stderr, "Dictora log error: %s: %s: %s", path.constData(), std::strerror(errno), bytes.constData());
        return;
    }
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + written, size_t(bytes.size() - written));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            std::fprintf(stderr, "Dictora log error: %s: %s: %s", path.constData(), std::strerror(errno), bytes.constData());
            break;
        }
        written += n;
    }
    ::close(fd);
}

} // namespace dictora
