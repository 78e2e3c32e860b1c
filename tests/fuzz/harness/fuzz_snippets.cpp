// snippets.json: refused with a reason, or read into entries that save and
// read back equal.
#include "FuzzCheck.h"
#include "text/SnippetStore.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    QString problem;
    const auto entries = SnippetStore::decode(bytes, &problem);
    if (!entries) {
        FUZZ_CHECK(!problem.isEmpty(), "a refused file needs a reason");
        return 0;
    }
    const auto again = SnippetStore::decode(SnippetStore::encode(*entries));
    FUZZ_CHECK(again && *again == *entries, "saved snippets must read back equal");
    return 0;
}
