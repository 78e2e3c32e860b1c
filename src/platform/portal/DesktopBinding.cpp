#include "platform/portal/DesktopBinding.h"

#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalTrigger.h"
#include "shortcut/KeyCodes.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThreadPool>
#include <QRegularExpression>
#include <QStandardPaths>

namespace dictora::portal {

namespace {

QString keyName(const GlobalShortcut &shortcut)
{
    const std::optional<int> evdev = KeyCodes::evdevFromKeyCode(shortcut.keyCode);
    const std::optional<QString> name = evdev ? keysymName(*evdev) : std::nullopt;
    return name.value_or(shortcut.keyLabel);
}

QStringList modifierNames(const GlobalShortcut &shortcut, const char *ctrl, const char *alt, const char *shift,
    const char *super)
{
    QStringList names;
    const GlobalShortcutModifiers m = shortcut.modifiers;
    if (m.contains(GlobalShortcutModifiers::control))
        names << QLatin1String(ctrl);
    if (m.contains(GlobalShortcutModifiers::option))
        names << QLatin1String(alt);
    if (m.contains(GlobalShortcutModifiers::shift))
        names << QLatin1String(shift);
    if (m.contains(GlobalShortcutModifiers::command))
        names << QLatin1String(super);
    return names;
}

struct GsettingsResult {
    bool ok = false;
    QString output;
};

GsettingsResult gsettings(const QStringList &arguments)
{
    const QString tool = QStandardPaths::findExecutable(QStringLiteral("gsettings"));
    if (tool.isEmpty())
        return {false, QStringLiteral("gsettings is not installed")};
    QProcess process;
    process.start(tool, arguments);
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished(1000);
        return {false, QStringLiteral("gsettings did not answer")};
    }
    const bool ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return {ok, QString::fromUtf8(ok ? process.readAllStandardOutput() : process.readAllStandardError()).trimmed()};
}

} // namespace

QHash<QString, QStringList> gnomePortalShortcuts(const QString &appId)
{
    // "[('dictate-0x31', {'shortcuts': <['0x31']>, 'description': <'…'>})]"
    const GsettingsResult read = gsettings({QStringLiteral("get"),
        QStringLiteral("org.gnome.settings-daemon.global-shortcuts.application:/org/gnome/settings-daemon/global-shortcuts/%1/")
            .arg(appId),
        QStringLiteral("shortcuts")});
    QHash<QString, QStringList> shortcuts;
    if (!read.ok)
        return shortcuts;
    static const QRegularExpression entry(QStringLiteral(R"(\('([^']+)',\s*\{'shortcuts':\s*<\[([^\]]*)\]>)"));
    static const QRegularExpression quoted(QStringLiteral("'([^']*)'"));
    for (auto match = entry.globalMatch(read.output); match.hasNext();) {
        const QRegularExpressionMatch one = match.next();
        QStringList triggers;
        for (auto trigger = quoted.globalMatch(one.captured(2)); trigger.hasNext();)
            triggers << trigger.next().captured(1);
        shortcuts.insert(one.captured(1), triggers);
    }
    return shortcuts;
}

namespace {

QString entrySchema()
{
    return QLatin1String(GnomeKeybinding::kEntrySchema) + QLatin1Char(':') + QLatin1String(GnomeKeybinding::kEntryPath);
}

// GVariant text of a string array: "@as []" or "['/a/', '/b/']".
QStringList parseStringArray(QString text)
{
    if (text.startsWith(QLatin1String("@as")))
        text = text.mid(3).trimmed();
    QStringList items;
    static const QRegularExpression quoted(QStringLiteral("'((?:[^'\\\\]|\\\\.)*)'"));
    for (auto it = quoted.globalMatch(text); it.hasNext();)
        items << it.next().captured(1);
    return items;
}

QString toStringArray(const QStringList &items)
{
    if (items.isEmpty())
        return QStringLiteral("@as []");
    QStringList quoted;
    for (const QString &item : items)
        quoted << QLatin1Char('\'') + item + QLatin1Char('\'');
    return QLatin1Char('[') + quoted.join(QStringLiteral(", ")) + QLatin1Char(']');
}

// A value gsettings reads as exactly this string, quotes and all.
QString gvariantString(QString text)
{
    text.replace(QLatin1Char('\\'), QStringLiteral("\\\\")).replace(QLatin1Char('"'), QStringLiteral("\\\""));
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString unquote(QString text)
{
    if (text.size() >= 2 && text.startsWith(QLatin1Char('\'')) && text.endsWith(QLatin1Char('\'')))
        text = text.mid(1, text.size() - 2);
    return text;
}

} // namespace

Desktop desktopFromName(const QString &currentDesktop)
{
    for (const QString &name : currentDesktop.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        const QString n = name.trimmed().toLower();
        if (n == QLatin1String("gnome") || n == QLatin1String("gnome-classic") || n == QLatin1String("ubuntu"))
            return Desktop::gnome;
        if (n == QLatin1String("kde"))
            return Desktop::kde;
        if (n == QLatin1String("sway"))
            return Desktop::sway;
        if (n == QLatin1String("hyprland"))
            return Desktop::hyprland;
        if (n == QLatin1String("river"))
            return Desktop::river;
    }
    return Desktop::other;
}

Desktop currentDesktop()
{
    return desktopFromName(qEnvironmentVariable("XDG_CURRENT_DESKTOP"));
}

QString desktopDisplayName(Desktop desktop)
{
    switch (desktop) {
    case Desktop::gnome: return QStringLiteral("GNOME");
    case Desktop::kde: return QStringLiteral("KDE Plasma");
    case Desktop::sway: return QStringLiteral("Sway");
    case Desktop::hyprland: return QStringLiteral("Hyprland");
    case Desktop::river: return QStringLiteral("river");
    case Desktop::other: break;
    }
    return QStringLiteral("your desktop");
}

QStringList bindingLines(Desktop desktop, const GlobalShortcut &shortcut, bool holdToTalk)
{
    const QString key = keyName(shortcut);
    switch (desktop) {
    case Desktop::sway: {
        QStringList chord = modifierNames(shortcut, "Ctrl", "Mod1", "Shift", "Mod4");
        chord << key;
        const QString combo = chord.join(QLatin1Char('+'));
        if (!holdToTalk)
            return {QStringLiteral("bindsym %1 exec dictora toggle").arg(combo)};
        return {QStringLiteral("bindsym %1 exec dictora press").arg(combo),
            QStringLiteral("bindsym --release %1 exec dictora release").arg(combo)};
    }
    case Desktop::hyprland: {
        const QString mods = modifierNames(shortcut, "CTRL", "ALT", "SHIFT", "SUPER").join(QLatin1Char(' '));
        if (!holdToTalk)
            return {QStringLiteral("bind = %1, %2, exec, dictora toggle").arg(mods, key)};
        return {QStringLiteral("bind = %1, %2, exec, dictora press").arg(mods, key),
            QStringLiteral("bindr = %1, %2, exec, dictora release").arg(mods, key)};
    }
    case Desktop::river: {
        QString mods = modifierNames(shortcut, "Control", "Alt", "Shift", "Super").join(QLatin1Char('+'));
        if (mods.isEmpty())
            mods = QStringLiteral("None");
        if (!holdToTalk)
            return {QStringLiteral("riverctl map normal %1 %2 spawn 'dictora toggle'").arg(mods, key)};
        return {QStringLiteral("riverctl map normal %1 %2 spawn 'dictora press'").arg(mods, key),
            QStringLiteral("riverctl map -release normal %1 %2 spawn 'dictora release'").arg(mods, key)};
    }
    case Desktop::gnome:
    case Desktop::kde:
    case Desktop::other:
        break;
    }
    return {};
}

QString hyprlandGlobalLine(const GlobalShortcut &shortcut)
{
    const QString mods = modifierNames(shortcut, "CTRL", "ALT", "SHIFT", "SUPER").join(QLatin1Char(' '));
    return QStringLiteral("bind = %1, %2, global, %3:dictate").arg(mods, keyName(shortcut), QLatin1String(kAppId));
}

QString gnomeAccelerator(const GlobalShortcut &shortcut)
{
    return modifierNames(shortcut, "<Control>", "<Alt>", "<Shift>", "<Super>").join(QString()) + keyName(shortcut);
}

bool GnomeKeybinding::isAvailable()
{
    const GsettingsResult schemas = gsettings({QStringLiteral("list-schemas")});
    return schemas.ok && schemas.output.split(QLatin1Char('\n')).contains(QLatin1String(kListSchema));
}

QString GnomeKeybinding::installedAccelerator()
{
    const GsettingsResult list = gsettings({QStringLiteral("get"), QLatin1String(kListSchema), QStringLiteral("custom-keybindings")});
    if (!list.ok)
        return {};
    for (const QString &path : parseStringArray(list.output)) {
        const QString schema = QLatin1String(kEntrySchema) + QLatin1Char(':') + path;
        const GsettingsResult command = gsettings({QStringLiteral("get"), schema, QStringLiteral("command")});
        const QString text = unquote(command.output);
        if (command.ok && (path == QLatin1String(kEntryPath) || text == QLatin1String(kCommand)
                              || text.endsWith(QStringLiteral("/dictora toggle")))) {
            return unquote(gsettings({QStringLiteral("get"), schema, QStringLiteral("binding")}).output);
        }
    }
    return {};
}

QString GnomeKeybinding::command()
{
    // The shell GNOME runs it from has no PATH of ours: name this very program.
    const QString program = QCoreApplication::instance() ? QCoreApplication::applicationFilePath() : QString();
    if (program.isEmpty())
        return QLatin1String(kCommand);
    return QStringLiteral("'%1' toggle").arg(QString(program).replace(QLatin1Char('\''), QStringLiteral("'\\''")));
}

bool GnomeKeybinding::install(const GlobalShortcut &shortcut, QString *error)
{
    const QString schema = entrySchema();
    const QList<QStringList> writes{{QStringLiteral("name"), QStringLiteral("Dictora: start or stop a dictation")},
        {QStringLiteral("command"), gvariantString(command())}, {QStringLiteral("binding"), gnomeAccelerator(shortcut)}};
    for (const QStringList &write : writes) {
        const GsettingsResult set = gsettings({QStringLiteral("set"), schema, write.at(0), write.at(1)});
        if (!set.ok) {
            if (error)
                *error = set.output;
            return false;
        }
    }
    const GsettingsResult list = gsettings({QStringLiteral("get"), QLatin1String(kListSchema), QStringLiteral("custom-keybindings")});
    if (!list.ok) {
        if (error)
            *error = list.output;
        return false;
    }
    QStringList paths = parseStringArray(list.output);
    if (paths.contains(QLatin1String(kEntryPath)))
        return true;
    // Other custom keybindings the user made stay as they are.
    paths << QLatin1String(kEntryPath);
    const GsettingsResult set = gsettings({QStringLiteral("set"), QLatin1String(kListSchema),
        QStringLiteral("custom-keybindings"), toStringArray(paths)});
    if (!set.ok && error)
        *error = set.output;
    return set.ok;
}

bool GnomeKeybinding::remove(QString *error)
{
    const GsettingsResult list = gsettings({QStringLiteral("get"), QLatin1String(kListSchema), QStringLiteral("custom-keybindings")});
    if (!list.ok) {
        if (error)
            *error = list.output;
        return false;
    }
    QStringList paths = parseStringArray(list.output);
    paths.removeAll(QLatin1String(kEntryPath));
    const GsettingsResult set = gsettings({QStringLiteral("set"), QLatin1String(kListSchema),
        QStringLiteral("custom-keybindings"), toStringArray(paths)});
    gsettings({QStringLiteral("reset-recursively"), entrySchema()});
    if (!set.ok && error)
        *error = set.output;
    return set.ok;
}

DesktopBindingShortcutBackend::DesktopBindingShortcutBackend(Desktop desktop, QObject *parent)
    : ShortcutBackend(parent), m_desktop(desktop)
{
}

bool DesktopBindingShortcutBackend::install(const GlobalShortcut &shortcut)
{
    const bool changed = m_installed && !(*m_installed == shortcut);
    m_installed = shortcut;
    // A GNOME keybinding Dictora added follows the shortcut when it changes;
    // one it never added stays the user's to add.
    if (m_desktop == Desktop::gnome) {
        QThreadPool::globalInstance()->start([shortcut, changed] {
            const QString bound = GnomeKeybinding::installedAccelerator();
            if (!bound.isEmpty() && (changed || bound != gnomeAccelerator(shortcut)))
                GnomeKeybinding::install(shortcut);
        });
    }
    return true;
}

bool DesktopBindingShortcutBackend::verifyInstalled(const GlobalShortcut &shortcut) const
{
    return m_installed && *m_installed == shortcut;
}

void DesktopBindingShortcutBackend::uninstall()
{
    m_installed.reset();
}

QString DesktopBindingShortcutBackend::instructions(bool holdToTalk) const
{
    const GlobalShortcut shortcut = m_installed.value_or(GlobalShortcut::defaultShortcut());
    switch (m_desktop) {
    case Desktop::gnome:
        return holdToTalk
            ? QStringLiteral("GNOME runs a keyboard shortcut only when the key goes down, so hold to talk needs the "
                             "toggle here: Dictora can add a GNOME shortcut for %1 that runs \"dictora toggle\".")
                  .arg(shortcut.displayText())
            : QStringLiteral("Dictora can add a GNOME keyboard shortcut for %1 that runs \"dictora toggle\".")
                  .arg(shortcut.displayText());
    case Desktop::sway:
    case Desktop::hyprland:
    case Desktop::river: {
        const QString file = m_desktop == Desktop::sway ? QStringLiteral("~/.config/sway/config")
            : m_desktop == Desktop::hyprland            ? QStringLiteral("~/.config/hypr/hyprland.conf")
                                                        : QStringLiteral("~/.config/river/init");
        return QStringLiteral("Add to %1, then reload %2:\n%3")
            .arg(file, desktopDisplayName(m_desktop), bindingLines(m_desktop, shortcut, holdToTalk).join(QLatin1Char('\n')));
    }
    case Desktop::kde:
    case Desktop::other:
        break;
    }
    return QStringLiteral("In %1's keyboard settings, bind %2 to the command \"dictora toggle\"%3.")
        .arg(desktopDisplayName(m_desktop), shortcut.displayText(),
            holdToTalk ? QStringLiteral(" (for hold to talk: \"dictora press\" on key down and \"dictora release\" on key up)")
                       : QString());
}

} // namespace dictora::portal
