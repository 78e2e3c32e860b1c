#pragma once

#include <QString>

namespace dictora {

// Every file location follows the XDG variables, so isolated instances can run
// side by side (tests set XDG_DATA_HOME, XDG_CONFIG_HOME and XDG_RUNTIME_DIR).
namespace DataPaths {
// $XDG_DATA_HOME/Dictora (normally ~/.local/share/Dictora).
QString dataDirectory();
// Creates the data directory with mode 0700 (tightening an existing one).
// Returns false and sets errorText when it cannot.
bool ensureDataDirectory(QString *errorText = nullptr);
QString journalFile();   // transcripts.jsonl
QString logFile();       // runtime.log
QString snippetsFile();  // snippets.json
QString modelsDirectory(); // Models/
// $XDG_CONFIG_HOME/Dictora/Dictora.ini: the preferences, shared by the app and the verbs.
QString settingsFile();
// The local socket through which a second start finds the running instance.
QString instanceSocket();
} // namespace DataPaths

} // namespace dictora
