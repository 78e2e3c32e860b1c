// The snippet expander on any text and entries. Input: the text, then
// trigger and expansion pairs, separated by 0x1F.
#include "FuzzCheck.h"
#include "text/SnippetExpander.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QList<QByteArray> parts = QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)).split('\x1f');
    const QString text = QString::fromUtf8(parts.first());
    SnippetEntries entries;
    bool anyUsable = false;
    for (qsizetype i = 1; i + 1 < parts.size() && entries.size() < 16; i += 2) {
        entries.append(SnippetEntry{QUuid(), QString::fromUtf8(parts.at(i)), QString::fromUtf8(parts.at(i + 1))});
        anyUsable = anyUsable || (!entries.last().trigger.trimmed().isEmpty() && !entries.last().expansion.isEmpty());
    }
    const QString out = SnippetExpander::apply(text, entries);
    if (!anyUsable)
        FUZZ_CHECK(out == text, "entries that cannot apply change nothing");
    FUZZ_CHECK(SnippetExpander::apply(text, {}) == text, "no entries change nothing");
    return 0;
}
