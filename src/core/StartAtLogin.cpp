#include "core/StartAtLogin.h"

#include "core/ProductPreferences.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace dictora {

namespace {

// The Exec value for one program path: quoted when it holds a reserved
// character, then escaped again as a desktop-entry string, '%' doubled.
QString execValue(const QString &program)
{
    static const QString reserved = QStringLiteral(" \t\"'\\><~|&;$*?#()`");
    bool needsQuotes = false;
    for (QChar c : program)
        needsQuotes = needsQuotes || reserved.contains(c);
    QString argument;
    if (needsQuotes) {
        argument += QLatin1Char('"');
        for (QChar c : program) {
            if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
                argument += QLatin1Char('\\');
            argument += c;
        }
        argument += QLatin1Char('"');
    } else {
        argument = program;
    }
    argument.replace(QLatin1String("\\"), QLatin1String("\\\\"));
    argument.replace(QLatin1String("%"), QLatin1String("%%"));
    return argument;
}

} // namespace

StartAtLogin::StartAtLogin(ProductPreferences &preferences, QString desktopId, QString executable)
    : m_preferences(preferences), m_desktopId(std::move(desktopId)), m_executable(std::move(executable))
{
}

QString StartAtLogin::autostartDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/autostart");
}

QString StartAtLogin::entryPath() const
{
    return autostartDirectory() + QLatin1Char('/') + m_desktopId + QStringLiteral(".desktop");
}

QByteArray StartAtLogin::entryText(const QString &executable)
{
    QString text = QStringLiteral("[Desktop Entry]\n"
                                  "Type=Application\n"
                                  "Name=Dictora\n"
                                  "Comment=Push-to-talk dictation into any application\n"
                                  "Exec=%1\n"
                                  "Icon=dictora\n"
                                  "Terminal=false\n"
                                  "X-GNOME-Autostart-enabled=true\n")
                       .arg(execValue(executable));
    return text.toUtf8();
}

bool StartAtLogin::entryEnabled() const
{
    const QFileInfo info(entryPath());
    if (!info.isFile())
        return false;
    QFile file(info.filePath());
    // One the desktop can see but we cannot read still starts at login.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return true;
    bool inEntryGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inEntryGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inEntryGroup)
            continue;
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals < 0)
            continue;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (key == QLatin1String("Hidden") && value == QLatin1String("true"))
            return false;
        if (key == QLatin1String("X-GNOME-Autostart-enabled") && value == QLatin1String("false"))
            return false;
    }
    return true;
}

void StartAtLogin::refresh()
{
    m_preferences.setStartsAtLogin(entryEnabled());
}

QString StartAtLogin::setEnabled(bool on)
{
    const QString failure = on ? write() : remove();
    refresh();
    return failure;
}

QString StartAtLogin::write()
{
    // A newline cannot be written into Exec; an empty or relative path would
    // start whatever the login shell finds.
    if (m_executable.isEmpty() || m_executable.contains(QLatin1Char('\n')) || QFileInfo(m_executable).isRelative())
        return QStringLiteral("Dictora cannot tell where its program is (%1), so it cannot start at login.")
            .arg(m_executable);
    const QString folder = autostartDirectory();
    if (!QDir().mkpath(folder))
        return QStringLiteral("The folder %1 cannot be created, so Dictora cannot start at login.").arg(folder);
    // A link (say, to the installed launcher) is replaced, not written through.
    if (QFileInfo(entryPath()).isSymLink() && !QFile::remove(entryPath()))
        return QStringLiteral("%1 cannot be replaced.").arg(entryPath());
    QSaveFile file(entryPath());
    if (!file.open(QIODevice::WriteOnly))
        return QStringLiteral("%1 cannot be written: %2").arg(entryPath(), file.errorString());
    file.write(entryText(m_executable));
    if (!file.commit())
        return QStringLiteral("%1 cannot be written: %2").arg(entryPath(), file.errorString());
    return {};
}

QString StartAtLogin::remove()
{
    const QFileInfo info(entryPath());
    if (!info.exists() && !info.isSymLink())
        return {};
    QFile file(info.filePath());
    if (!file.remove())
        return QStringLiteral("%1 cannot be removed: %2").arg(info.filePath(), file.errorString());
    return {};
}

} // namespace dictora
