// The archive read-back. The bytes are read as an archive file (refused, or
// written and read back equal), and as a journal whose records are archived:
// what the journal can hold must always verify.
#include "FuzzCheck.h"
#include "history/TranscriptHistoryArchive.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    if (const auto archive = TranscriptHistoryArchive::fromJson(bytes)) {
        const auto again = TranscriptHistoryArchive::fromJson(archive->toJson());
        FUZZ_CHECK(again && *again == *archive, "an archive must read back equal");
    }
    const QList<TranscriptRecord> records = TranscriptJournal::decodeLines(bytes);
    if (!records.isEmpty()) {
        TranscriptHistoryArchive archive;
        archive.exportedAt = QDateTime::fromMSecsSinceEpoch(1763000000123, Qt::UTC);
        archive.recordCount = records.size();
        archive.records = records;
        const auto readBack = TranscriptHistoryArchive::fromJson(archive.toJson());
        FUZZ_CHECK(readBack && *readBack == archive, "journal records must verify in an archive");
    }
    return 0;
}
