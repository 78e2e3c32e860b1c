#include "history/PrivateFiles.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace dictora::PrivateFiles {

QString describeErrno(const QString &path)
{
    return path + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(errno));
}

QString makePrivateDirectory(const QString &directory)
{
    const QByteArray path = QFile::encodeName(directory);
    struct stat st{};
    if (::stat(path.constData(), &st) == 0)
        return S_ISDIR(st.st_mode) ? QString() : directory + QStringLiteral(": not a directory");
    // Create each missing component; existing parents are left as they are.
    for (qsizetype i = 1; i <= path.size(); ++i) {
        if (i != path.size() && path.at(i) != '/')
            continue;
        const QByteArray part = path.left(i);
        if (::mkdir(part.constData(), 0700) != 0 && errno != EEXIST)
            return describeErrno(QFile::decodeName(part));
    }
    return {};
}

QString touchPrivateFile(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return describeErrno(path);
    ::close(fd);
    return {};
}

} // namespace dictora::PrivateFiles
