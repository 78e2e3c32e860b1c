#include "cli/CommandLine.h"

namespace dictora::cli {

void printOut(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

void printErr(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

int usageError(const QString &verb, const QString &message)
{
    printErr(QStringLiteral("dictora %1: %2\nTry 'dictora %1 --help'.\n").arg(verb, message));
    return kExitUsage;
}

} // namespace dictora::cli
