#pragma once

#include "speech/AccuracyModelContract.h"

#include <QString>

namespace dictora::ModelInstall {

struct Outcome {
    bool installed = false;
    QString problem; // why nothing was installed
};

// Puts `source` at `destination` only when it is the contract's exact file:
// the size is checked first (a wrong size is never read), then the SHA-256
// of the bytes as they are copied. The destination is replaced in one rename
// after the copy is on disk, so on any problem it stays as it was.
Outcome installVerifiedCopy(const QString &source, const AccuracyModelContract &contract, const QString &destination);

} // namespace dictora::ModelInstall
