#include "core/DataPaths.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace dictora::DataPaths {

QString dataDirectory()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return QDir(base).filePath(QStringLiteral("Dictora"));
}

bool ensureDataDirectory(QString *errorText)
{
    const QString dir = dataDirectory();
    if (!QDir().mkpath(dir)) {
        if (errorText)
            *errorText = QStringLiteral("cannot create %1").arg(dir);
        return false;
    }
    constexpr auto ownerOnly = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadUser
        | QFile::WriteUser | QFile::ExeUser;
    if (!QFile::setPermissions(dir, ownerOnly)) {
        if (errorText)
            *errorText = QStringLiteral("cannot restrict permissions of %1").arg(dir);
        return false;
    }
    return true;
}

QString journalFile() { return QDir(dataDirectory()).filePath(QStringLiteral("transcripts.jsonl")); }
QString logFile() { return QDir(dataDirectory()).filePath(QStringLiteral("runtime.log")); }
QString snippetsFile() { return QDir(dataDirectory()).filePath(QStringLiteral("snippets.json")); }
QString modelsDirectory() { return QDir(dataDirectory()).filePath(QStringLiteral("Models")); }

QString settingsFile()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return QDir(base).filePath(QStringLiteral("Dictora/Dictora.ini"));
}

QString instanceSocket()
{
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QDir::tempPath();
    return QDir(runtime).filePath(QStringLiteral("dictora.socket"));
}

} // namespace dictora::DataPaths
