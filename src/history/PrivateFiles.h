#pragma once

#include <QString>

namespace dictora::PrivateFiles {

// Creates `directory` and any missing parents with mode 0700. Returns an
// empty string on success, else the reason.
QString makePrivateDirectory(const QString &directory);
// Creates an empty file with mode 0600 if none exists. Same return rule.
QString touchPrivateFile(const QString &path);
// "<path>: <strerror>" for the current errno.
QString describeErrno(const QString &path);

} // namespace dictora::PrivateFiles
