// One journal line through both record decoders, and what the journal would
// write of the record back through them.
#include "FuzzCheck.h"
#include "history/JournalLineDecoder.h"

#include <cstdint>
#include <cstdlib>

using namespace dictora;

namespace {

// The canonical decoder takes integers of up to 15 digits.
bool fitsCanonical(const TranscriptRecord &r)
{
    const auto small = [](std::int64_t v) { return std::llabs(v) < 1000000000000000LL; };
    return small(r.recordingStartedAt.toMSecsSinceEpoch()) && small(r.recordingEndedAt.toMSecsSinceEpoch())
        && small(r.savedAt.toMSecsSinceEpoch()) && small(r.recordingDurationMilliseconds)
        && small(r.finalizationDurationMilliseconds) && small(r.pasteDispatchDurationMilliseconds)
        && small(r.totalDurationMilliseconds) && (!r.earsDurationMilliseconds || small(*r.earsDurationMilliseconds));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray line = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const auto general = TranscriptRecord::fromJson(line);
    const auto canonical = JournalLineDecoder::decodeCanonical(line);
    if (canonical)
        FUZZ_CHECK(general && *general == *canonical, "the canonical decoder reads a line differently");
    if (!general)
        return 0;
    const QByteArray written = general->toJsonLine();
    FUZZ_CHECK(!written.contains('\n'), "a record must stay on one line");
    const auto reread = TranscriptRecord::fromJson(written);
    FUZZ_CHECK(reread && *reread == *general, "a written record must read back equal");
    if (fitsCanonical(*general)) {
        const auto fast = JournalLineDecoder::decodeCanonical(written);
        FUZZ_CHECK(fast && *fast == *general, "what the journal writes must take the canonical path");
    }
    return 0;
}
