#pragma once

#include "core/Error.h"

namespace dictora {

// Failures of fetching or checking the model. Transport failures (refused
// connection, time-out) and file-system failures are plain dictora::Error.
class AccuracyModelError : public Error {
public:
    enum class Case { serverStatus, incompleteDownload, invalidResponse, integrityMismatch };

    static AccuracyModelError serverStatus(int httpStatus);
    static AccuracyModelError incompleteDownload(qint64 received, qint64 expected);
    static AccuracyModelError invalidResponse();
    static AccuracyModelError integrityMismatch();

    Case errorCase() const { return m_case; }

private:
    AccuracyModelError(Case errorCase, QString description) : Error(std::move(description)), m_case(errorCase) { }
    Case m_case;
};

} // namespace dictora
