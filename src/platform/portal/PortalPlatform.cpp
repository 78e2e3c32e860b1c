#include "platform/portal/PortalPlatform.h"

#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/PortalRequest.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "platform/portal/UinputKeystrokeSender.h"

#include <QDBusConnection>

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

} // namespace dictora::PortalPlatform
