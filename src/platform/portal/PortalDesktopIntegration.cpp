#include "platform/portal/PortalDesktopIntegration.h"

#include "platform/portal/PortalPlatform.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>

namespace dictora::portal {

PortalDesktopIntegration::PortalDesktopIntegration(ShortcutBackend &shortcut, KeystrokeSender &keystrokes,
    std::unique_ptr<PermissionProbe> permissions)
    : m_shortcut(shortcut), m_keystrokes(keystrokes), m_permissions(std::move(permissions))
{
}

DesktopIntegration::BindingHint PortalDesktopIntegration::bindingHint(const GlobalShortcut &shortcut, bool holdToTalk)
{
    const PortalPlatform::BindingHint hint = PortalPlatform::bindingHint(m_shortcut, shortcut, holdToTalk);
    return {hint.text, hint.actionLabel, hint.action};
}

QString PortalDesktopIntegration::permissionActionLabel(const QString &action) const
{
    return PortalPlatform::permissionActionLabel(action);
}

void PortalDesktopIntegration::runPermissionAction(const QString &action, const GlobalShortcut &current, bool holdToTalk,
    Advice done)
{
    // Consent and the shortcut talk to objects of this thread and only start
    // a request; the rest runs programs (gsettings, pkexec) and may take a while.
    if (action == QLatin1String(PermissionAction::portalConsent) || action == QLatin1String(PermissionAction::portalShortcut)
        || action == QLatin1String(PermissionAction::desktopBinding)) {
        done(PortalPlatform::runPermissionAction(action, &m_shortcut, &m_keystrokes, current, holdToTalk));
        return;
    }
    QObject *app = QCoreApplication::instance();
    QThreadPool::globalInstance()->start([app, action, current, holdToTalk, done = std::move(done)] {
        const QString advice = PortalPlatform::runPermissionAction(action, nullptr, nullptr, current, holdToTalk);
        QMetaObject::invokeMethod(app, [done, advice] { done(advice); }, Qt::QueuedConnection);
    });
}

void PortalDesktopIntegration::prepareTyping()
{
    PortalPlatform::prepareTyping(&m_keystrokes);
}

} // namespace dictora::portal
