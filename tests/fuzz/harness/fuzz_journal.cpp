// A journal file: the reader must skip exactly the undecodable lines, and the
// newest-first scan, at any chunk sizes, must give the same records.
#include "FuzzCheck.h"
#include "../../history/HistoryTestRecords.h"
#include "history/TranscriptJournal.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    // Two bytes choose the chunk sizes; the rest is the file.
    const qint64 firstChunk = 1 + data[0] % 97;
    const qint64 chunk = 1 + data[1] % 61;
    const QByteArray bytes(reinterpret_cast<const char *>(data + 2), qsizetype(size - 2));

    const QList<TranscriptRecord> records = TranscriptJournal::decodeLines(bytes);
    FUZZ_CHECK(records == test::referenceRead(bytes), "the reader differs from line-by-line decoding");

    QList<QList<TranscriptRecord>> batches;
    qint64 delivered = 0;
    bool finished = false;
    TranscriptJournal::scanNewestFirst(
        bytes.size(), firstChunk, chunk,
        [&](qint64 offset, qint64 length) {
            FUZZ_CHECK(offset >= 0 && length > 0 && offset + length <= bytes.size(), "read outside the file");
            return bytes.mid(offset, length);
        },
        [&](const QByteArray &lines, bool more) {
            FUZZ_CHECK(!finished, "a batch after the one that said it was the last");
            finished = !more;
            delivered += lines.size();
            batches.prepend(TranscriptJournal::decodeLines(lines));
            return true;
        });
    FUZZ_CHECK(delivered == bytes.size(), "the scan must hand over every byte once");
    FUZZ_CHECK(finished == !bytes.isEmpty(), "the last batch says so");
    QList<TranscriptRecord> scanned;
    for (const auto &batch : batches)
        scanned.append(batch);
    FUZZ_CHECK(scanned == records, "the newest-first scan differs from the whole read");
    return 0;
}
