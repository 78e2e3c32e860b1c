#pragma once

#include "speech/AccuracyModelContract.h"

#include <QByteArray>
#include <QString>

#include <atomic>

namespace dictora::ModelVerifier {

constexpr qint64 kHashChunkBytes = 4 * 1024 * 1024;

// Lower-case hex SHA-256 of the whole file, read in chunks. Empty when the
// file cannot be read or `cancel` became true. Blocking: run it off the main thread.
QString sha256Hex(const QString &path, const std::atomic_bool *cancel = nullptr);

// Exact size first, so a file of the wrong size is never read; then the hash.
bool isValidModel(const QString &path, const AccuracyModelContract &contract, const std::atomic_bool *cancel = nullptr);

} // namespace dictora::ModelVerifier
