#include "history/PrivateFiles.h"
#include "history/TranscriptJournal.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace dictora {

void TranscriptJournal::scanNewestFirst(qint64 size, qint64 firstChunkBytes, qint64 chunkBytes,
    const ByteSource &read, const LineSink &sink)
{
    firstChunkBytes = std::max<qint64>(1, firstChunkBytes);
    chunkBytes = std::max<qint64>(1, chunkBytes);
    // The start of a line that began before the block read last, kept as the
    // blocks that hold it (latest first) so a line without any line feed is
    // copied once, not once per block.
    QList<QByteArray> unfinished;
    qint64 end = size;
    bool first = true;
    while (end > 0) {
        const qint64 start = std::max<qint64>(0, end - (first ? firstChunkBytes : chunkBytes));
        first = false;
        const QByteArray block = read(start, end - start);
        end = start;
        const qsizetype newline = start > 0 ? block.indexOf('\n') : -1;
        if (start > 0 && newline < 0) {
            unfinished.append(block);
            continue;
        }
        // Everything after the first line feed is whole lines.
        const qsizetype from = newline + 1;
        QByteArray lines;
        qsizetype total = block.size() - from;
        for (const QByteArray &part : unfinished)
            total += part.size();
        lines.reserve(total);
        lines.append(block.constData() + from, block.size() - from);
        for (qsizetype i = unfinished.size() - 1; i >= 0; --i)
            lines.append(unfinished.at(i));
        unfinished.clear();
        if (from > 0)
            unfinished.append(block.left(from));
        if (!lines.isEmpty() && !sink(lines, start > 0))
            return;
    }
}

void TranscriptJournal::readNewestFirst(qint64 firstChunkBytes, qint64 chunkBytes, const LineSink &sink) const
{
    const QByteArray path = QFile::encodeName(m_filePath);
    int fd = -1;
    qint64 size = 0;
    {
        QMutexLocker lock(&ioGate());
        // Non-blocking, so a FIFO put in the journal's place cannot hang the reader.
        fd = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT || errno == ENOTDIR)
                return; // no journal yet: an empty History
            throw JournalError(PrivateFiles::describeErrno(m_filePath));
        }
        struct stat st{};
        if (::fstat(fd, &st) != 0) {
            const QString why = PrivateFiles::describeErrno(m_filePath);
            ::close(fd);
            throw JournalError(why);
        }
        if (!S_ISREG(st.st_mode)) {
            ::close(fd);
            throw JournalError(m_filePath + QStringLiteral(": not a regular file"));
        }
        size = st.st_size;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    const auto read = [this, fd](qint64 offset, qint64 length) {
        QByteArray bytes(length, Qt::Uninitialized);
        qint64 done = 0;
        while (done < length) {
            const ssize_t n = ::pread(fd, bytes.data() + done, size_t(length - done), off_t(offset + done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                throw JournalError(PrivateFiles::describeErrno(m_filePath));
            if (n == 0)
                throw JournalError(m_filePath + QStringLiteral(": the file was cut short while it was read"));
            done += n;
        }
        return bytes;
    };
    scanNewestFirst(size, firstChunkBytes, chunkBytes, read, sink);
}

} // namespace dictora
