#include "speech/AccuracyModelError.h"

namespace dictora {

AccuracyModelError AccuracyModelError::serverStatus(int httpStatus)
{
    return {Case::serverStatus, QStringLiteral("The model server returned HTTP %1.").arg(httpStatus)};
}

AccuracyModelError AccuracyModelError::incompleteDownload(qint64 received, qint64 expected)
{
    return {Case::incompleteDownload,
        QStringLiteral("The model download stopped at %1 of %2 bytes.").arg(received).arg(expected)};
}

AccuracyModelError AccuracyModelError::invalidResponse()
{
    return {Case::invalidResponse, QStringLiteral("The model server returned an invalid response.")};
}

AccuracyModelError AccuracyModelError::integrityMismatch()
{
    return {Case::integrityMismatch, QStringLiteral("The model did not pass its exact SHA-256 check.")};
}

} // namespace dictora
