#include "platform/portal/PortalPlatform.h"

#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/UinputKeystrokeSender.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

namespace dictora::PortalPlatform {

bool hasGlobalShortcutsPortal()
{
    return portal::interfaceVersion(QDBusConnection::sessionBus(), QLatin1String(portal::PortalShortcutBackend::kInterface)) > 0;
}

bool hasRemoteDesktopPortal()
{
    return portal::interfaceVersion(QDBusConnection::sessionBus(),
               QLatin1String(portal::RemoteDesktopKeystrokeSender::kInterface)) > 0;
}

std::unique_ptr<ShortcutBackend> createPortalShortcutBackend(QObject *parent)
{
    return std::make_unique<portal::PortalShortcutBackend>(QDBusConnection::sessionBus(), parent);
}

std::unique_ptr<ShortcutBackend> createDesktopBindingShortcutBackend(portal::Desktop desktop, QObject *parent)
{
    return std::make_unique<portal::DesktopBindingShortcutBackend>(desktop, parent);
}

std::unique_ptr<KeystrokeSender> createRemoteDesktopKeystrokeSender(portal::RemoteDesktopKeystrokeSender::TokenStore tokens)
{
    return std::make_unique<portal::RemoteDesktopKeystrokeSender>(
        QDBusConnection::sessionBus(), std::move(tokens), portal::evdevCodeForV());
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
        const QString bound = portalBackend->triggerDescription();
        if (!bound.isEmpty())
            return {QStringLiteral("The desktop runs Dictora on: %1 (change it in the desktop's shortcut settings).").arg(bound), {}, {}};
        if (portalBackend->stage() == portal::PortalShortcutBackend::Stage::bound) {
            // KDE Plasma 5.27 registers the shortcut without a key and leaves the choice to its settings.
            return {QStringLiteral("The desktop has registered \"Start or stop a dictation\" without a key: choose "
                                   "one in the desktop's shortcut settings."), {}, {}};
        }
        return {QStringLiteral("The desktop has not confirmed a key yet."), QStringLiteral("Ask the Desktop Again"),
            [portalBackend, shortcut] {
                portalBackend->uninstall();
                portalBackend->install(shortcut);
            }};
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
        shortcut->uninstall(); // a declined dialog is only shown again for a fresh binding
        shortcut->install(current);
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
