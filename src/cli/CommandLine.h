#pragma once

#include <QString>
#include <QStringList>

#include <cstdio>

namespace dictora::cli {

// Exit codes shared by every verb.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void printOut(const QString &text); // standard output, UTF-8, as is
void printErr(const QString &text); // standard error, UTF-8, as is
// Prints "dictora <verb>: <message>" and the hint to --help; returns kExitUsage.
int usageError(const QString &verb, const QString &message);

} // namespace dictora::cli
