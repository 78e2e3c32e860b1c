// The formatter on any text: it never fails, never hangs, and with
// formatting off only trims.
#include "FuzzCheck.h"
#include "text/BasicFormatter.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString formatted = BasicFormatter::formatTranscript(text, true);
    FUZZ_CHECK(BasicFormatter::formatTranscript(text, false) == text.trimmed(), "off only trims");
    // Protected abbreviations never leak their placeholders.
    if (!text.contains(QStringLiteral("QZK")))
        FUZZ_CHECK(!formatted.contains(QStringLiteral("__QZK_")), "placeholder left in the text");
    BasicFormatter::formatExplicitList(text);
    BasicFormatter::capitalizeSentences(text);
    return 0;
}
