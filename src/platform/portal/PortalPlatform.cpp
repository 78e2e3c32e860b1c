#include "platform/portal/PortalPlatform.h"

#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/LayoutWatch.h"
#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalService.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/PortalTrigger.h"
#include "platform/portal/UinputKeystrokeSender.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QThreadPool>
#include <QStandardPaths>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace dictora::PortalPlatform {

QString ensureDesktopEntry(QString *error)
{
    const QString fileName = QStringLiteral("applications/%1.desktop").arg(QLatin1String(portal::kAppId));
    const QString userDirectory = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString userFile = userDirectory + QLatin1Char('/') + fileName;
    const QString binary = QCoreApplication::applicationFilePath();
    const QString found = QStandardPaths::locate(QStandardPaths::GenericDataLocation, fileName);
    // An installed entry wins; one we wrote for another build is brought up
    // to date. The portals' lookup passes over an entry whose program is not
    // found (a package's "dictora" while a build runs from elsewhere).
    if (!found.isEmpty()) {
        QSettings entry(found, QSettings::IniFormat);
        entry.beginGroup(QStringLiteral("Desktop Entry"));
        const bool ours = entry.value(QStringLiteral("X-Dictora-Source-Build")).toBool();
        const QString exec = entry.value(QStringLiteral("Exec")).toString();
        const QString program = exec.section(QLatin1Char(' '), 0, 0).remove(QLatin1Char('"'));
        const bool runnable = !program.isEmpty()
            && (QFileInfo(program).isAbsolute() ? QFileInfo(program).isExecutable()
                                                : !QStandardPaths::findExecutable(program).isEmpty());
        if (ours ? exec == binary : runnable)
            return found;
    }
    QDir().mkpath(QFileInfo(userFile).path());
    const QByteArray text = QStringLiteral(
        "[Desktop Entry]\nType=Application\nName=Dictora\nComment=Push-to-talk dictation\nExec=\"%1\"\nIcon=dictora\n"
        "NoDisplay=true\nTerminal=false\nX-Dictora-Source-Build=true\n").arg(binary).toUtf8();
    // Written beside and renamed over, without QSaveFile's fsync: this runs
    // at start-up on the GUI thread, and a lost entry is written again next run.
    QFile file(userFile + QStringLiteral(".new"));
    const bool written = file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
    file.close();
    if (!written || std::rename(QFile::encodeName(file.fileName()).constData(), QFile::encodeName(userFile).constData()) != 0) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(userFile, written ? QString::fromLocal8Bit(std::strerror(errno)) : file.errorString());
        file.remove();
        return {};
    }
    return userFile;
}

void registerWithPortal()
{
    static bool asked = false;
    if (asked || !QCoreApplication::instance())
        return;
    asked = true;
    QString error;
    if (ensureDesktopEntry(&error).isEmpty())
        qCWarning(lcPortal, "portal desktop file not written error=%s", qPrintable(error));
    portal::PortalService::on(QDBusConnection::sessionBus());
}

void probeSoon()
{
    registerWithPortal();
    portal::probeInterfaceVersions(QDBusConnection::sessionBus(),
        {QLatin1String(portal::PortalShortcutBackend::kInterface),
            QLatin1String(portal::RemoteDesktopKeystrokeSender::kInterface)});
}

bool hasGlobalShortcutsPortal()
{
    return portal::knownInterfaceVersion(QDBusConnection::sessionBus(),
               QLatin1String(portal::PortalShortcutBackend::kInterface)) > 0;
}

bool hasRemoteDesktopPortal()
{
    return portal::knownInterfaceVersion(QDBusConnection::sessionBus(),
               QLatin1String(portal::RemoteDesktopKeystrokeSender::kInterface)) > 0;
}

namespace {

// The keybinding an older GNOME needed would now fire beside the portal's.
void removeOldGnomeKeybinding(portal::PortalShortcutBackend &backend)
{
    auto *raw = &backend;
    QObject::connect(raw, &ShortcutBackend::installationChanged, raw, [raw] {
        static bool removed = false;
        if (removed || raw->stage() != portal::PortalShortcutBackend::Stage::bound)
            return;
        removed = true;
        QThreadPool::globalInstance()->start([] {
            if (!portal::GnomeKeybinding::installedAccelerator().isEmpty())
                portal::GnomeKeybinding::remove();
        });
    });
}

} // namespace

std::unique_ptr<ShortcutBackend> createPortalShortcutBackend(QObject *parent)
{
    if (portal::currentDesktop() == portal::Desktop::gnome) {
        // GNOME takes the physical key itself: the same trigger on every layout.
        auto backend = std::make_unique<portal::PortalShortcutBackend>(QDBusConnection::sessionBus(),
            [](const GlobalShortcut &shortcut) -> std::optional<QStringList> {
                const std::optional<QString> keycode = portal::keycodeTrigger(shortcut);
                return keycode ? QStringList{*keycode} : QStringList();
            },
            parent);
        removeOldGnomeKeybinding(*backend);
        return backend;
    }
    // Elsewhere the desktop matches the symbol its active layout types, so every
    // layout the user switches to gets its own trigger, also one added later.
    portal::LayoutWatch &layouts = portal::LayoutWatch::instance();
    auto backend = std::make_unique<portal::PortalShortcutBackend>(QDBusConnection::sessionBus(),
        [&layouts](const GlobalShortcut &shortcut) -> std::optional<QStringList> {
            const std::optional<QList<portal::LayoutName>> known = layouts.layouts();
            if (!known)
                return std::nullopt;
            return portal::preferredTriggers(shortcut, *known);
        },
        parent);
    QObject::connect(&layouts, &portal::LayoutWatch::changed, backend.get(), &portal::PortalShortcutBackend::triggersChanged);
    return backend;
}

std::unique_ptr<ShortcutBackend> createDesktopBindingShortcutBackend(portal::Desktop desktop, QObject *parent)
{
    return std::make_unique<portal::DesktopBindingShortcutBackend>(desktop, parent);
}

std::unique_ptr<KeystrokeSender> createUinputKeystrokeSender()
{
    return std::make_unique<portal::UinputKeystrokeSender>(QLatin1String(portal::UinputKeystrokeSender::kDevicePath),
        portal::evdevCodeForV());
}

std::unique_ptr<PermissionProbe> createPermissionProbe(portal::SessionMechanisms mechanisms)
{
    return std::make_unique<portal::DesktopPermissionProbe>(std::move(mechanisms));
}

BindingHint bindingHint(ShortcutBackend &backend, const GlobalShortcut &shortcut, bool holdToTalk)
{
    if (auto *portalBackend = qobject_cast<portal::PortalShortcutBackend *>(&backend)) {
        // Hyprland's portal registers the shortcut; its key comes from the config.
        if (portal::currentDesktop() == portal::Desktop::hyprland) {
            return {QStringLiteral("Add to ~/.config/hypr/hyprland.conf, then reload Hyprland:\n%1")
                        .arg(portal::hyprlandGlobalLine(shortcut)), {}, {}};
        }
        const QString bound = portalBackend->triggerDescription();
        if (!bound.isEmpty())
            return {QStringLiteral("The desktop runs Dictora on: %1 (change it in the desktop's shortcut settings).").arg(bound), {}, {}};
        const QString reason = portalBackend->failureReason();
        return {reason.isEmpty() ? QStringLiteral("The desktop has not confirmed a key yet.") : reason,
            QStringLiteral("Ask the Desktop Again"), [portalBackend] { portalBackend->askAgain(); }};
    }
    auto *binding = qobject_cast<portal::DesktopBindingShortcutBackend *>(&backend);
    if (!binding)
        return {};
    BindingHint hint{binding->instructions(holdToTalk), {}, {}};
    if (binding->desktop() == portal::Desktop::gnome) {
        const QString accelerator = portal::GnomeKeybinding::installedAccelerator();
        if (!accelerator.isEmpty()) {
            hint.text = QStringLiteral("GNOME runs \"dictora toggle\" on %1 (change it in GNOME's keyboard settings).").arg(accelerator);
        } else {
            hint.actionLabel = QStringLiteral("Add GNOME Shortcut");
            hint.action = [shortcut] { portal::GnomeKeybinding::install(shortcut); };
        }
    }
    return hint;
}

void prepareTyping(KeystrokeSender *keystrokes)
{
    if (auto *sender = dynamic_cast<portal::RemoteDesktopKeystrokeSender *>(keystrokes))
        sender->start();
}

QString permissionActionLabel(const QString &action)
{
    if (action == QLatin1String(PermissionAction::portalConsent))
        return QStringLiteral("ALLOW TYPING");
    if (action == QLatin1String(PermissionAction::portalShortcut))
        return QStringLiteral("CONFIRM THE SHORTCUT");
    if (action == QLatin1String(PermissionAction::gnomeKeybinding))
        return QStringLiteral("ADD GNOME SHORTCUT");
    if (action == QLatin1String(PermissionAction::desktopBinding))
        return QStringLiteral("SHOW THE LINE TO ADD");
    if (action == QLatin1String(PermissionAction::uinputRule))
        return QStringLiteral("ALLOW THE VIRTUAL KEYBOARD");
    return {};
}

namespace {
QString installedUdevRule()
{
    const QString installed = QCoreApplication::applicationDirPath() + QStringLiteral("/../lib/udev/rules.d/60-dictora-uinput.rules");
    return QFile::exists(installed) ? installed : QString();
}
} // namespace

QString runPermissionAction(const QString &action, ShortcutBackend *shortcut, KeystrokeSender *keystrokes,
    const GlobalShortcut &current, bool holdToTalk)
{
    if (action == QLatin1String(PermissionAction::portalConsent)) {
        if (auto *sender = dynamic_cast<portal::RemoteDesktopKeystrokeSender *>(keystrokes))
            sender->start();
        return {};
    }
    if (action == QLatin1String(PermissionAction::portalShortcut) && shortcut) {
        if (auto *portalBackend = qobject_cast<portal::PortalShortcutBackend *>(shortcut))
            portalBackend->askAgain();
        return {};
    }
    if (action == QLatin1String(PermissionAction::gnomeKeybinding)) {
        QString error;
        if (portal::GnomeKeybinding::install(current, &error))
            return {};
        return QStringLiteral("The GNOME shortcut could not be added (%1). Add it in GNOME Settings, Keyboard, "
                              "Custom Shortcuts, with the command \"dictora toggle\".").arg(error);
    }
    if (action == QLatin1String(PermissionAction::desktopBinding) && shortcut) {
        if (auto *binding = qobject_cast<portal::DesktopBindingShortcutBackend *>(shortcut))
            return binding->instructions(holdToTalk);
        return {};
    }
    if (action == QLatin1String(PermissionAction::uinputRule)) {
        // Writing to /etc needs the administrator; pkexec asks for the password.
        const QString rule = installedUdevRule();
        const QString command = rule.isEmpty()
            ? QStringLiteral("echo 'KERNEL==\"uinput\", SUBSYSTEM==\"misc\", TAG+=\"uaccess\", OPTIONS+=\"static_node=uinput\"' "
                             "> /etc/udev/rules.d/60-dictora-uinput.rules")
            : QStringLiteral("install -m 0644 '%1' /etc/udev/rules.d/60-dictora-uinput.rules").arg(rule);
        const QString full = command + QStringLiteral(" && udevadm control --reload && udevadm trigger --sysname-match=uinput");
        if (!QStandardPaths::findExecutable(QStringLiteral("pkexec")).isEmpty()
            && QProcess::startDetached(QStringLiteral("pkexec"), {QStringLiteral("sh"), QStringLiteral("-c"), full}))
            return {};
        return QStringLiteral("Run as administrator, then log in again:\n%1").arg(full);
    }
    return {};
}

} // namespace dictora::PortalPlatform
