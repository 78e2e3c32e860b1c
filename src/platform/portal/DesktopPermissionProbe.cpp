#include "platform/portal/DesktopPermissionProbe.h"

#include "platform/ShortcutBackend.h"
#include "platform/portal/PortalRequest.h"
#include "platform/portal/UinputKeystrokeSender.h"

#include <QAtomicInteger>
#include <QDBusConnection>

namespace dictora::portal {

namespace {

uint portalVersionOnPrivateConnection(const QString &busAddress, const QString &interface)
{
    // A connection of our own: the shared one belongs to the GUI thread.
    static QAtomicInteger<quint64> counter;
    const QString name = QStringLiteral("dictora-probe-%1").arg(counter.fetchAndAddRelaxed(1));
    uint version = 0;
    {
        const QDBusConnection connection = busAddress.isEmpty()
            ? QDBusConnection::connectToBus(QDBusConnection::SessionBus, name)
            : QDBusConnection::connectToBus(busAddress, name);
        version = interfaceVersion(connection, interface);
    }
    QDBusConnection::disconnectFromBus(name);
    return version;
}

} // namespace

PermissionCheck DesktopPermissionProbe::accessibility(const ShortcutBackend *shortcut)
{
    const PermissionCheck keys = shortcutCheck(shortcut);
    if (!keys.authorized)
        return keys;
    return keystrokeCheck();
}

PermissionCheck DesktopPermissionProbe::shortcutCheck(const ShortcutBackend *shortcut) const
{
    using Shortcut = SessionMechanisms::Shortcut;
    switch (m_mechanisms.shortcut) {
    case Shortcut::portal:
        if (shortcut && !shortcut->failureReason().isEmpty())
            return PermissionCheck::needsAttention(shortcut->failureReason(), QLatin1String(PermissionAction::portalShortcut));
        return PermissionCheck::granted();
    case Shortcut::gnomeKeybinding:
        if (GnomeKeybinding::installedAccelerator().isEmpty()) {
            return PermissionCheck::needsAttention(
                QStringLiteral("GNOME passes a global key to an application only through its own keyboard shortcuts. "
                               "Add a GNOME shortcut that runs \"dictora toggle\"; Dictora can do it for you."),
                QLatin1String(PermissionAction::gnomeKeybinding));
        }
        return PermissionCheck::granted();
    case Shortcut::compositorBinding:
        // The compositor's configuration is the user's file; the settings
        // sheet shows the line. Nothing here can tell whether it is in place.
        return PermissionCheck::granted();
    }
    return PermissionCheck::granted();
}

PermissionCheck DesktopPermissionProbe::keystrokeCheck() const
{
    using Keystroke = SessionMechanisms::Keystroke;
    switch (m_mechanisms.keystroke) {
    case Keystroke::remoteDesktop: {
        if (portalVersionOnPrivateConnection(m_mechanisms.busAddress, QStringLiteral("org.freedesktop.portal.RemoteDesktop")) == 0) {
            const QString uinput = UinputKeystrokeSender::accessProblem();
            if (uinput.isEmpty())
                return PermissionCheck::granted();
            return PermissionCheck::needsAttention(
                QStringLiteral("%1 cannot let Dictora type through its portal, and the fallback needs your "
                               "attention: %2").arg(desktopDisplayName(m_mechanisms.desktop), uinput),
                QLatin1String(PermissionAction::uinputRule));
        }
        using Typing = SessionMechanisms::Typing;
        const Typing consent = m_mechanisms.typingConsent ? m_mechanisms.typingConsent() : Typing::unknown;
        if (consent == Typing::allowed)
            return PermissionCheck::granted();
        if (consent == Typing::refused) {
            return PermissionCheck::needsAttention(
                QStringLiteral("Typing was not allowed in %1's dialog, so Dictora cannot paste. Choose Allow Typing "
                               "to be asked again.").arg(desktopDisplayName(m_mechanisms.desktop)),
                QLatin1String(PermissionAction::portalConsent));
        }
        return PermissionCheck::needsAttention(
            QStringLiteral("%1 asks before another program may type. Allow Dictora to paste your dictations in the "
                           "desktop's dialog; with \"Remember\" on it asks only once, otherwise once each time "
                           "Dictora starts.").arg(desktopDisplayName(m_mechanisms.desktop)),
            QLatin1String(PermissionAction::portalConsent));
    }
    case Keystroke::uinput: {
        const QString problem = UinputKeystrokeSender::accessProblem();
        if (problem.isEmpty())
            return PermissionCheck::granted();
        return PermissionCheck::needsAttention(problem, QLatin1String(PermissionAction::uinputRule));
    }
    case Keystroke::compositorKeyboard:
        return PermissionCheck::granted();
    }
    return PermissionCheck::granted();
}

} // namespace dictora::portal
