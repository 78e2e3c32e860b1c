#include "platform/DesktopEntryIndex.h"

#include <QtConcurrent/QtConcurrentRun>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLocale>
#include <QProcessEnvironment>

namespace dictora {

namespace {

struct ParsedEntry {
    QString name;
    QString startupWMClass;
    bool usable = false;
};

// Only the [Desktop Entry] group matters; other groups (actions) carry their
// own Name keys that must not leak into the application's name.
ParsedEntry parseDesktopFile(const QString &path)
{
    ParsedEntry entry;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > 1024 * 1024)
        return entry;

    const QString language = QLocale().name();              // e.g. de_DE
    const QString shortLanguage = language.section(u'_', 0, 0); // de
    QString plainName, languageName, shortLanguageName, type;
    bool hidden = false;
    bool inMainGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(u'#'))
            continue;
        if (line.startsWith(u'[')) {
            inMainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inMainGroup)
            continue;
        const qsizetype eq = line.indexOf(u'=');
        if (eq <= 0)
            continue;
        const QString key = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        if (key == QLatin1String("Name"))
            plainName = value;
        else if (key == QLatin1String("Name[") + language + u']')
            languageName = value;
        else if (key == QLatin1String("Name[") + shortLanguage + u']')
            shortLanguageName = value;
        else if (key == QLatin1String("StartupWMClass"))
            entry.startupWMClass = value;
        else if (key == QLatin1String("Type"))
            type = value;
        else if (key == QLatin1String("Hidden"))
            hidden = value == QLatin1String("true");
    }
    entry.name = !languageName.isEmpty()        ? languageName
                 : !shortLanguageName.isEmpty() ? shortLanguageName
                                                : plainName;
    entry.usable = !hidden && !entry.name.isEmpty()
                   && (type.isEmpty() || type == QLatin1String("Application"));
    return entry;
}

} // namespace

QStringList DesktopEntryIndex::applicationDirectories()
{
    const QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QString dataHome = env.value(QStringLiteral("XDG_DATA_HOME"));
    if (dataHome.isEmpty())
        dataHome = QDir::homePath() + QStringLiteral("/.local/share");
    QString dataDirs = env.value(QStringLiteral("XDG_DATA_DIRS"));
    if (dataDirs.isEmpty())
        dataDirs = QStringLiteral("/usr/local/share:/usr/share");

    QStringList result{dataHome + QStringLiteral("/applications")};
    for (const QString &dir : dataDirs.split(u':', Qt::SkipEmptyParts))
        result << dir + QStringLiteral("/applications");
    return result;
}

DesktopEntryIndex::DesktopEntryIndex(QStringList directories)
    : m_tables(QtConcurrent::run(&DesktopEntryIndex::read, std::move(directories)))
{
}

DesktopEntryIndex::Tables DesktopEntryIndex::read(const QStringList &directories)
{
    Tables tables;
    QSet<QString> seenIds;
    for (const QString &root : directories) {
        QDirIterator it(root, {QStringLiteral("*.desktop")}, QDir::Files | QDir::Readable,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            // Desktop file id: the path below the folder, '/' turned into '-'.
            QString id = QDir(root).relativeFilePath(path);
            id.chop(8);
            id.replace(u'/', u'-');
            if (seenIds.contains(id))
                continue; // shadowed by an earlier folder
            seenIds.insert(id);
            const ParsedEntry parsed = parseDesktopFile(path);
            if (!parsed.usable)
                continue;
            tables.byFileId.insert(id.toLower(), {parsed.name, parsed.startupWMClass});
            if (!parsed.startupWMClass.isEmpty()) {
                if (!tables.byWMClass.contains(parsed.startupWMClass))
                    tables.byWMClass.insert(parsed.startupWMClass, parsed.name);
                const QString folded = parsed.startupWMClass.toLower();
                if (!tables.byWMClassFolded.contains(folded))
                    tables.byWMClassFolded.insert(folded, parsed.name);
            }
        }
    }
    return tables;
}

std::optional<QString> DesktopEntryIndex::nameForWindow(const QString &windowClass,
                                                        const QString &instanceName) const
{
    if (!m_tables.isFinished())
        return std::nullopt; // a dictation in the first moments names the window by its class
    const Tables &tables = m_tables.result();
    // The class names the application; the instance name only helps when
    // the class finds nothing.
    for (const QString &key : {windowClass, instanceName}) {
        if (key.isEmpty())
            continue;
        if (auto it = tables.byWMClass.constFind(key); it != tables.byWMClass.constEnd())
            return *it;
        if (auto it = tables.byWMClassFolded.constFind(key.toLower()); it != tables.byWMClassFolded.constEnd())
            return *it;
        if (auto it = tables.byFileId.constFind(key.toLower()); it != tables.byFileId.constEnd())
            return it->name;
    }
    return std::nullopt;
}

} // namespace dictora
