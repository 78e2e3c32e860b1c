// The model contract: a usable contract or its own error naming the file.
#include "FuzzCheck.h"
#include "speech/AccuracyModelContract.h"

#include <cstdint>

using namespace dictora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    try {
        const AccuracyModelContract c = AccuracyModelContract::fromJson(bytes, QStringLiteral("contract.json"));
        FUZZ_CHECK(!c.fileName.isEmpty() && !c.fileName.contains(QLatin1Char('/')), "file name");
        FUZZ_CHECK(c.fileName != QStringLiteral("..") && c.fileName != QStringLiteral("."), "file name");
        FUZZ_CHECK(c.bytes > 0, "size");
        FUZZ_CHECK(c.sha256.size() == 64, "hash");
        FUZZ_CHECK(c.url.isValid() && !c.url.host().isEmpty(), "address");
        FUZZ_CHECK(c.url.scheme() == QStringLiteral("https") || c.url.scheme() == QStringLiteral("http"), "scheme");
    } catch (const AccuracyModelContractError &e) {
        FUZZ_CHECK(e.description().contains(QStringLiteral("contract.json")), "the error names the file");
    }
    return 0;
}
