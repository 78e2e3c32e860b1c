#include "core/Error.h"

namespace dictora {

QString errorMessage(const std::exception_ptr &error)
{
    if (!error)
        return QStringLiteral("Unknown error.");
    try {
        std::rethrow_exception(error);
    } catch (const Error &e) {
        return e.description();
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return QStringLiteral("Unknown error.");
    }
}

} // namespace dictora
