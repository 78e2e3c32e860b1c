#include "core/RuntimeLog.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace dictora {

Q_LOGGING_CATEGORY(lcSession, "dictora.session", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHistory, "dictora.history", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSpeech, "dictora.speech", QtInfoMsg)
Q_LOGGING_CATEGORY(lcAudio, "dictora.audio", QtInfoMsg)
Q_LOGGING_CATEGORY(lcText, "dictora.text", QtInfoMsg)
Q_LOGGING_CATEGORY(lcShortcut, "dictora.shortcut", QtInfoMsg)
Q_LOGGING_CATEGORY(lcPlatform, "dictora.platform", QtInfoMsg)
Q_LOGGING_CATEGORY(lcOverlay, "dictora.overlay", QtInfoMsg)
Q_LOGGING_CATEGORY(lcOnboarding, "dictora.onboarding", QtInfoMsg)

namespace {

std::atomic<const RuntimeLog *> g_installed{nullptr};
QtMessageHandler g_previousHandler = nullptr;

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const RuntimeLog *log = g_installed.load();
    if (log && context.category && std::strncmp(context.category, "dictora.", 8) == 0) {
        log->write(type == QtDebugMsg ? QStringLiteral("debug ") + message : message);
        return;
    }
    if (g_previousHandler)
        g_previousHandler(type, context, message);
}

} // namespace

RuntimeLog::RuntimeLog(QString filePath) : m_filePath(std::move(filePath)) {}

RuntimeLog::~RuntimeLog()
{
    const RuntimeLog *self = this;
    if (g_installed.compare_exchange_strong(self, nullptr))
        qInstallMessageHandler(g_previousHandler);
    if (m_fd >= 0)
        ::close(m_fd);
}

void RuntimeLog::install()
{
    const QtMessageHandler previous = qInstallMessageHandler(handleMessage);
    if (previous != handleMessage)
        g_previousHandler = previous;
    g_installed.store(this);
}

QString RuntimeLog::lineFor(const QString &message)
{
    return QLatin1Char('[') + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + QLatin1String("] ")
        + message + QLatin1Char('\n');
}

bool RuntimeLog::reopen() const
{
    if (m_fd >= 0) {
        // Still the file at the path? A deleted log (or its folder) is made anew.
        struct stat st {};
        if (::fstat(m_fd, &st) == 0 && st.st_nlink > 0)
            return true;
        ::close(m_fd);
        m_fd = -1;
    }
    const QString folder = QFileInfo(m_filePath).absolutePath();
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "Dictora log error: cannot create folder %s\n", qPrintable(folder));
        return false;
    }
    const QByteArray path = QFile::encodeName(m_filePath);
    m_fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (m_fd < 0) {
        std::fprintf(stderr, "Dictora log error: %s: %s\n", path.constData(), std::strerror(errno));
        return false;
    }
    return true;
}

void RuntimeLog::write(const QString &message) const
{
    const QByteArray bytes = lineFor(message).toUtf8();
    if (bytes.isEmpty())
        return;
    QMutexLocker lock(&m_mutex);
    if (!reopen()) {
        std::fprintf(stderr, "Dictora log error: line lost: %s", bytes.constData());
        return;
    }
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(m_fd, bytes.constData() + written, size_t(bytes.size() - written));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            std::fprintf(stderr, "Dictora log error: %s: %s", std::strerror(errno), bytes.constData());
            ::close(m_fd);
            m_fd = -1; // the next line tries a fresh open
            break;
        }
        written += n;
    }
}

} // namespace dictora
