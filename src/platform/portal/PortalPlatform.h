#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/portal/DesktopBinding.h"
#include "platform/portal/DesktopPermissionProbe.h"
#include "platform/portal/RemoteDesktopKeystrokeSender.h"

#include <memory>

// Factories for the session-choice table: each backend talks to the user's
// session bus and fails with a reason where the desktop lacks what it needs.
namespace dictora::PortalPlatform {

// Whether the desktop's portal offers the interface (a short blocking call).
bool hasGlobalShortcutsPortal();
bool hasRemoteDesktopPortal();

std::unique_ptr<ShortcutBackend> createPortalShortcutBackend(QObject *parent = nullptr);
std::unique_ptr<ShortcutBackend> createDesktopBindingShortcutBackend(portal::Desktop desktop, QObject *parent = nullptr);
std::unique_ptr<KeystrokeSender> createRemoteDesktopKeystrokeSender(portal::RemoteDesktopKeystrokeSender::TokenStore tokens);
std::unique_ptr<KeystrokeSender> createUinputKeystrokeSender();
std::unique_ptr<PermissionProbe> createPermissionProbe(portal::SessionMechanisms mechanisms);

} // namespace dictora::PortalPlatform
