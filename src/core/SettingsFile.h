#pragma once

#include <QString>

namespace dictora::SettingsFile {

// Why the settings file cannot be ours (too large, binary, not UTF-8, lines
// that are no INI at all), or empty when it reads fine or does not exist.
// QSettings would quietly skip such content and then overwrite it.
QString problem(const QString &path);

// Moves an unreadable settings file aside (".unreadable-<time>" beside it) so
// the program starts from defaults without losing the user's bytes. Returns
// the message to show or log, empty when nothing was wrong.
QString setAsideIfUnreadable(const QString &path);

// The file QSettings should read: the path itself, or /dev/null (defaults,
// nothing written) when it is unreadable and must not be touched.
QString readablePathOrNull(const QString &path, QString *problemText);

} // namespace dictora::SettingsFile
