#include "platform/portal/PortalShortcutBackend.h"

#include "platform/portal/PortalTrigger.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QThread>

namespace dictora::portal {

namespace {

// One entry of the portal's a(sa{sv}) shortcut lists.
struct ShortcutEntry {
    QString id;
    QVariantMap properties;
};

QDBusArgument &operator<<(QDBusArgument &argument, const ShortcutEntry &entry)
{
    argument.beginStructure();
    argument << entry.id << entry.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, ShortcutEntry &entry)
{
    argument.beginStructure();
    argument >> entry.id >> entry.properties;
    argument.endStructure();
    return argument;
}

} // namespace
} // namespace dictora::portal

Q_DECLARE_METATYPE(dictora::portal::ShortcutEntry)

namespace dictora::portal {
namespace {

void registerTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<ShortcutEntry>();
        qDBusRegisterMetaType<QList<ShortcutEntry>>();
        return true;
    }();
    Q_UNUSED(registered);
}

QList<ShortcutEntry> readShortcutList(const QVariant &value)
{
    if (!value.canConvert<QDBusArgument>())
        return {};
    const QDBusArgument argument = value.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a(sa{sv})"))
        return {};
    return qdbus_cast<QList<ShortcutEntry>>(argument);
}

QString describe(const GlobalShortcut &shortcut)
{
    return shortcut.modifiers.displayPrefix() + shortcut.keyLabel;
}

} // namespace

PortalShortcutBackend::PortalShortcutBackend(QDBusConnection connection, QObject *parent)
    : ShortcutBackend(parent), m_connection(std::move(connection))
{
    registerTypes();
    m_version = interfaceVersion(m_connection, QLatin1String(kInterface));
    if (m_version == 0)
        return;
    const QString service = QLatin1String(kService), path = QLatin1String(kPath), iface = QLatin1String(kInterface);
    m_connection.connect(service, path, iface, QStringLiteral("Activated"), this, SLOT(onActivated(QDBusMessage)));
    m_connection.connect(service, path, iface, QStringLiteral("Deactivated"), this, SLOT(onDeactivated(QDBusMessage)));
    m_connection.connect(service, path, iface, QStringLiteral("ShortcutsChanged"), this,
        SLOT(onShortcutsChanged(QDBusMessage)));
}

PortalShortcutBackend::~PortalShortcutBackend()
{
    closeSession();
}

bool PortalShortcutBackend::install(const GlobalShortcut &shortcut)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (m_version == 0) {
        m_failureReason = QStringLiteral(
            "This desktop offers no global shortcuts to applications. Bind a key in the desktop's own "
            "keyboard settings to the command \"dictora toggle\".");
        return false;
    }
    if (m_wanted && *m_wanted == shortcut) {
        switch (m_stage) {
        case Stage::bound:
            return true;
        case Stage::creatingSession:
        case Stage::listing:
        case Stage::binding:
            return false; // still waiting for the desktop; failureReason says so
        case Stage::refused:
            // The user said no in the desktop's dialog; asking again on every
            // retry would nag. A new shortcut, or a new process, asks again.
            return false;
        case Stage::idle:
        case Stage::failed:
            break;
        }
    }
    ++m_generation;
    m_wanted = shortcut;
    m_bound.reset();
    m_keyDown = false;
    m_failureReason = QStringLiteral("Confirm the shortcut %1 in the desktop's dialog.").arg(describe(shortcut));
    if (m_session.isEmpty())
        createSession();
    else
        bindShortcuts();
    return false;
}

bool PortalShortcutBackend::verifyInstalled(const GlobalShortcut &shortcut) const
{
    return m_stage == Stage::bound && m_bound && *m_bound == shortcut && !m_session.isEmpty();
}

void PortalShortcutBackend::uninstall()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    closeSession();
    m_wanted.reset();
    m_bound.reset();
    m_keyDown = false;
    m_stage = Stage::idle;
}

void PortalShortcutBackend::createSession()
{
    m_stage = Stage::creatingSession;
    const uint generation = m_generation;
    const QString sessionToken = newHandleToken();
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), sessionToken}}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code != ResponseCode::success) {
                fail(Stage::failed, QStringLiteral("The desktop did not open a shortcut session%1.")
                                        .arg(results.contains(QStringLiteral("error"))
                                                ? QStringLiteral(" (") + results.value(QStringLiteral("error")).toString() + QLatin1Char(')')
                                                : QString()));
                return;
            }
            // Documented as a string holding an object path; some portals send an object path.
            const QVariant handle = results.value(QStringLiteral("session_handle"));
            m_session = handle.canConvert<QDBusObjectPath>() && handle.userType() == qMetaTypeId<QDBusObjectPath>()
                ? handle.value<QDBusObjectPath>().path()
                : handle.toString();
            if (m_session.isEmpty()) {
                fail(Stage::failed, QStringLiteral("The desktop's shortcut session came without a handle."));
                return;
            }
            m_connection.connect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
                QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
            listShortcuts();
        });
}

// A desktop that remembers our shortcut from an earlier run has it listed
// already; binding again would show the dialog for nothing.
void PortalShortcutBackend::listShortcuts()
{
    m_stage = Stage::listing;
    const uint generation = m_generation;
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("ListShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_session))}, {}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code == ResponseCode::success && takeShortcuts(results.value(QStringLiteral("shortcuts")))
                && m_triggerDescription.size() > 0) {
                m_bound = m_wanted;
                m_stage = Stage::bound;
                m_failureReason.clear();
                Q_EMIT installationChanged();
                return;
            }
            bindShortcuts();
        });
}

void PortalShortcutBackend::bindShortcuts()
{
    m_stage = Stage::binding;
    const uint generation = m_generation;
    QVariantMap properties{{QStringLiteral("description"), QStringLiteral("Start or stop a dictation")}};
    if (const std::optional<QString> trigger = preferredTrigger(*m_wanted))
        properties.insert(QStringLiteral("preferred_trigger"), *trigger);

    const QList<ShortcutEntry> list{{QString::fromLatin1(kShortcutId), properties}};

    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_session)), QVariant::fromValue(list), QString()}, {}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code == ResponseCode::cancelled) {
                fail(Stage::refused, QStringLiteral("The shortcut was declined in the desktop's dialog. Choose "
                                                    "Update in the shortcut settings to be asked again."));
                return;
            }
            if (code != ResponseCode::success) {
                fail(Stage::failed, QStringLiteral("The desktop could not bind the shortcut%1.")
                                        .arg(results.contains(QStringLiteral("error"))
                                                ? QStringLiteral(" (") + results.value(QStringLiteral("error")).toString() + QLatin1Char(')')
                                                : QString()));
                return;
            }
            takeShortcuts(results.value(QStringLiteral("shortcuts")));
            m_bound = m_wanted;
            m_stage = Stage::bound;
            m_failureReason.clear();
            Q_EMIT installationChanged();
        });
}

bool PortalShortcutBackend::takeShortcuts(const QVariant &shortcuts)
{
    for (const ShortcutEntry &entry : readShortcutList(shortcuts)) {
        if (entry.id == QLatin1String(kShortcutId)) {
            m_triggerDescription = entry.properties.value(QStringLiteral("trigger_description")).toString();
            return true;
        }
    }
    return false;
}

void PortalShortcutBackend::fail(Stage stage, const QString &reason)
{
    m_stage = stage;
    m_failureReason = reason;
    m_bound.reset();
    Q_EMIT installationChanged();
}

void PortalShortcutBackend::closeSession()
{
    if (m_session.isEmpty())
        return;
    m_connection.disconnect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
        QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
    QDBusMessage close = QDBusMessage::createMethodCall(QLatin1String(kService), m_session,
        QLatin1String(kSessionInterface), QStringLiteral("Close"));
    m_connection.asyncCall(close);
    m_session.clear();
}

// Activated and Deactivated carry (session o, shortcut id s, timestamp t, options a{sv}).
bool PortalShortcutBackend::isOurs(const QDBusMessage &message) const
{
    const QList<QVariant> arguments = message.arguments();
    return m_stage == Stage::bound && arguments.size() >= 2
        && qvariant_cast<QDBusObjectPath>(arguments.at(0)).path() == m_session
        && arguments.at(1).toString() == QLatin1String(kShortcutId);
}

void PortalShortcutBackend::onActivated(const QDBusMessage &message)
{
    if (!isOurs(message) || m_keyDown)
        return; // a second Activated without Deactivated is a held key
    m_keyDown = true;
    Q_EMIT pressed();
}

void PortalShortcutBackend::onDeactivated(const QDBusMessage &message)
{
    if (!isOurs(message) || !m_keyDown)
        return;
    m_keyDown = false;
    Q_EMIT released();
}

void PortalShortcutBackend::onShortcutsChanged(const QDBusMessage &message)
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() < 2 || qvariant_cast<QDBusObjectPath>(arguments.at(0)).path() != m_session || m_session.isEmpty())
        return;
    // The user changed or removed the key in the desktop's settings.
    if (!takeShortcuts(arguments.at(1)))
        m_triggerDescription.clear();
    Q_EMIT installationChanged();
}

void PortalShortcutBackend::onSessionClosed()
{
    m_session.clear();
    m_keyDown = false;
    if (m_stage == Stage::bound)
        fail(Stage::failed, QStringLiteral("The desktop ended Dictora's shortcut session."));
}

} // namespace dictora::portal
