#include "history/TranscriptJournal.h"

#include "history/JournalLineDecoder.h"
#include "history/PrivateFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QThread>
#include <QtConcurrent/QtConcurrentMap>

#include <algorithm>
#include <cerrno>
#include <numeric>
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
    appendUnlocked(record);
}

void TranscriptJournal::appendUnlocked(const TranscriptRecord &record) const
{
    prepareUnlocked();
    QByteArray line = record.toJsonLine() + '\n';
    const QByteArray path = QFile::encodeName(m_filePath);
    const int fd = ::open(path.constData(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        throw JournalError(PrivateFiles::describeErrno(m_filePath));
    QString failure;
    const off_t before = ::lseek(fd, 0, SEEK_END);
    // A last line without its line feed (a crash or a full disk mid-append, a
    // hand edit) must not swallow this record: start a line of our own.
    char last = '\n';
    if (before > 0 && ::pread(fd, &last, 1, before - 1) == 1 && last != '\n')
        line.prepend('\n');
    qsizetype written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd, line.constData() + written, size_t(line.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = ENOSPC;
            failure = PrivateFiles::describeErrno(m_filePath);
            break;
        }
        written += n;
    }
    if (failure.isEmpty() && ::fsync(fd) != 0)
        failure = PrivateFiles::describeErrno(m_filePath);
    // A failed append takes back what it wrote, so a retry cannot leave the
    // same record twice; only this call's bytes are touched.
    if (!failure.isEmpty() && before >= 0 && written > 0 && ::ftruncate(fd, before) == 0)
        ::fsync(fd);
    ::close(fd);
    throwIfFailed(failure);
}

namespace {

void decodeRange(const QByteArray &bytes, qsizetype start, qsizetype stop, QList<TranscriptRecord> &records)
{
    records.reserve(records.size() + QByteArrayView(bytes.constData() + start, stop - start).count('\n') + 1);
    while (start < stop) {
        qsizetype end = bytes.indexOf('\n', start);
        if (end < 0)
            end = bytes.size();
        // A CRLF line is not ours: skipped like any corrupt line, and left in the file.
        if (end > start && bytes.at(end - 1) != '\r') {
            if (auto record = JournalLineDecoder::decode(QByteArrayView(bytes.constData() + start, end - start)))
                records.append(std::move(*record));
        }
        start = end + 1;
    }
}

} // namespace

QList<TranscriptRecord> TranscriptJournal::decodeLines(const QByteArray &bytes)
{
    // Decoding dominates a History reload; large journals are split at line
    // boundaries and decoded on every core.
    constexpr qsizetype kParallelFrom = 1 << 20;
    const unsigned cores = unsigned(std::max(1, QThread::idealThreadCount()));
    if (bytes.size() < kParallelFrom || cores == 1) {
        QList<TranscriptRecord> records;
        decodeRange(bytes, 0, bytes.size(), records);
        return records;
    }
    std::vector<qsizetype> bounds{0};
    for (unsigned i = 1; i < cores; ++i) {
        const qsizetype newline = bytes.indexOf('\n', bytes.size() * qsizetype(i) / cores);
        if (newline < 0)
            break;
        if (newline + 1 > bounds.back())
            bounds.push_back(newline + 1);
    }
    bounds.push_back(bytes.size());
    std::vector<QList<TranscriptRecord>> parts(bounds.size() - 1);
    std::vector<size_t> indexes(parts.size());
    std::iota(indexes.begin(), indexes.end(), size_t(0));
    QtConcurrent::blockingMap(indexes, [&](size_t i) { decodeRange(bytes, bounds[i], bounds[i + 1], parts[i]); });
    QList<TranscriptRecord> records;
    for (auto &part : parts)
        records.append(std::move(part));
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
