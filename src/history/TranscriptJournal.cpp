#include "history/TranscriptJournal.h"

#include "history/PrivateFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace dictora {

namespace {

void throwIfFailed(const QString &reason)
{
    if (!reason.isEmpty())
        throw JournalError(reason);
}

} // namespace

TranscriptJournal::TranscriptJournal(QString filePath) : m_filePath(std::move(filePath)) {}

QMutex &TranscriptJournal::ioGate()
{
    static QMutex *gate = new QMutex; // never destroyed: threads may still append at exit
    return *gate;
}

void TranscriptJournal::prepareUnlocked() const
{
    throwIfFailed(PrivateFiles::makePrivateDirectory(QFileInfo(m_filePath).absolutePath()));
    if (!QFileInfo::exists(m_filePath))
        throwIfFailed(PrivateFiles::touchPrivateFile(m_filePath));
}

void TranscriptJournal::prepare() const
{
    QMutexLocker lock(&ioGate());
    prepareUnlocked();
}

void TranscriptJournal::append(const TranscriptRecord &record) const
{
    QMutexLocker lock(&ioGate());
    prepareUnlocked();
    const QByteArray line = record.toJsonLine() + '\n';
    const QByteArray path = QFile::encodeName(m_filePath);
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        throw JournalError(PrivateFiles::describeErrno(m_filePath));
    QString failure;
    qsizetype written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd, line.constData() + written, size_t(line.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            failure = PrivateFiles::describeErrno(m_filePath);
            break;
        }
        written += n;
    }
    if (failure.isEmpty() && ::fsync(fd) != 0)
        failure = PrivateFiles::describeErrno(m_filePath);
    ::close(fd);
    throwIfFailed(failure);
}

QList<TranscriptRecord> TranscriptJournal::decodeLines(const QByteArray &bytes)
{
    QList<TranscriptRecord> records;
    records.reserve(bytes.count('\n') + 1);
    qsizetype start = 0;
    while (start < bytes.size()) {
        qsizetype end = bytes.indexOf('\n', start);
        if (end < 0)
            end = bytes.size();
        // A CRLF line is not ours: skipped like any corrupt line, and left in the file.
        if (end > start && bytes.at(end - 1) != '\r') {
            if (auto record = TranscriptRecord::fromJson(bytes.mid(start, end - start)))
                records.append(std::move(*record));
        }
        start = end + 1;
    }
    return records;
}

QList<TranscriptRecord> TranscriptJournal::readAllUnlocked() const
{
    QFile file(m_filePath);
    if (!file.exists())
        return {};
    if (!file.open(QIODevice::ReadOnly))
        throw JournalError(m_filePath + QStringLiteral(": ") + file.errorString());
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        throw JournalError(m_filePath + QStringLiteral(": ") + file.errorString());
    return decodeLines(bytes);
}

QList<TranscriptRecord> TranscriptJournal::readAll() const
{
    QMutexLocker lock(&ioGate());
    return readAllUnlocked();
}

void TranscriptJournal::replaceAllUnlocked(const QList<TranscriptRecord> &records) const
{
    prepareUnlocked();
    QByteArray buffer;
    for (const TranscriptRecord &r : records)
        buffer.append(r.toJsonLine()).append('\n');
    QSaveFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly))
        throw JournalError(m_filePath + QStringLiteral(": ") + file.errorString());
    if (file.write(buffer) != buffer.size() || !file.commit())
        throw JournalError(m_filePath + QStringLiteral(": ") + file.errorString());
    QFile::setPermissions(m_filePath, QFile::ReadOwner | QFile::WriteOwner);
}

TranscriptJournal::ExclusiveAccess::ExclusiveAccess(const TranscriptJournal &journal)
    : m_journal(journal), m_lock(&ioGate())
{
}

QList<TranscriptRecord> TranscriptJournal::ExclusiveAccess::readAll() const
{
    return m_journal.readAllUnlocked();
}

void TranscriptJournal::ExclusiveAccess::replaceAll(const QList<TranscriptRecord> &records) const
{
    m_journal.replaceAllUnlocked(records);
}

} // namespace dictora
