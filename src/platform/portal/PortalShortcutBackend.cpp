#include "platform/portal/PortalShortcutBackend.h"

#include "platform/PermissionProbe.h"
#include "platform/portal/DesktopBinding.h"
#include "platform/portal/PortalService.h"
#include "platform/portal/PortalTrigger.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QPointer>
#include <QRegularExpression>
#include <QSet>
#include <QThread>
#include <QtConcurrent/QtConcurrentRun>

#include <memory>

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

// Entries bound for a layout the user no longer has still count: they fire nothing wrong.
bool isOurId(const QString &id)
{
    const QLatin1String base(PortalShortcutBackend::kShortcutId);
    return id == base || (id.startsWith(base) && id.mid(base.size()).startsWith(QLatin1Char('-')));
}

constexpr int kFirstRetryMs = 1000;
constexpr int kLongestRetryMs = 60000;

} // namespace

PortalShortcutBackend::PortalShortcutBackend(QDBusConnection connection, Triggers triggers, QObject *parent)
    : ShortcutBackend(parent), m_connection(std::move(connection)), m_triggers(std::move(triggers))
{
    registerTypes();
    m_retry.setSingleShot(true);
    // The pause is over: listeners install again, which tries again.
    connect(&m_retry, &QTimer::timeout, this, &ShortcutBackend::installationChanged);
    m_version = knownInterfaceVersion(m_connection, QLatin1String(kInterface));
    if (m_version == 0)
        return;
    const QString service = QLatin1String(kService), path = QLatin1String(kPath), iface = QLatin1String(kInterface);
    m_connection.connect(service, path, iface, QStringLiteral("Activated"), this, SLOT(onActivated(QDBusMessage)));
    m_connection.connect(service, path, iface, QStringLiteral("Deactivated"), this, SLOT(onDeactivated(QDBusMessage)));
    m_connection.connect(service, path, iface, QStringLiteral("ShortcutsChanged"), this,
        SLOT(onShortcutsChanged(QDBusMessage)));
    // A new portal process knows nothing of our session: start over at once.
    connect(&PortalService::on(m_connection), &PortalService::restarted, this, [this] {
        ++m_generation;
        forgetSession();
        m_retry.stop();
        m_retryDelayMs = 0;
        m_boundThisRun = m_rebinding = m_recheck = false;
        m_stage = Stage::idle;
        Q_EMIT installationChanged();
    });
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
        case Stage::keyless:
        case Stage::refused:
            // Asking again on every retry would nag: the user asks (askAgain),
            // or the desktop tells us of a key (ShortcutsChanged).
            return false;
        case Stage::failed:
            if (m_retry.isActive())
                return false;
            break;
        case Stage::idle:
            break;
        }
    }
    // A shortcut changed in Dictora is offered to the desktop; one it
    // already knows from an earlier run is not.
    const bool changed = m_wanted && !(*m_wanted == shortcut);
    if (changed) {
        m_retry.stop();
        m_retryDelayMs = 0;
    }
    m_wanted = shortcut;
    if (changed && !m_session.isEmpty()) {
        // A session takes one bind (GNOME fails a second): the new key goes
        // to a fresh session once the old one is closed.
        m_stage = Stage::creatingSession;
        const uint generation = ++m_generation;
        closeSession([this, generation] {
            if (generation == m_generation)
                begin(true);
        });
        return false;
    }
    begin(changed);
    return false;
}

bool PortalShortcutBackend::verifyInstalled(const GlobalShortcut &shortcut) const
{
    // Adding a layout's trigger keeps the key working meanwhile: no
    // recording is lost to a settings change.
    if (m_rebinding)
        return m_wanted && *m_wanted == shortcut;
    return m_stage == Stage::bound && m_wanted && *m_wanted == shortcut && !m_session.isEmpty();
}

void PortalShortcutBackend::uninstall()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    closeSession();
    m_wanted.reset();
    m_retry.stop();
    m_retryDelayMs = 0;
    m_rebinding = m_recheck = false;
    m_stage = Stage::idle;
}

QString PortalShortcutBackend::attentionAction() const
{
    const bool userMustAct = m_stage == Stage::refused || m_stage == Stage::keyless || m_stage == Stage::failed;
    return userMustAct ? QString::fromLatin1(PermissionAction::portalShortcut) : QString();
}

namespace {

// The keys a desktop names for our entries, keycodes named as the key itself.
ShortcutBackend::BindingReport boundKeys(const QStringList &described, const GlobalShortcut &shortcut)
{
    QStringList keys;
    for (QString key : described) {
        key = key.trimmed().replace(QRegularExpression(QStringLiteral("\\b0x[0-9a-fA-F]+\\b")), shortcut.keyLabel);
        if (!key.isEmpty() && !keys.contains(key))
            keys << key;
    }
    if (keys.isEmpty())
        return {true, false, {}, QStringLiteral("The desktop lists no key for Dictora yet.")};
    return {true, true, keys.join(QStringLiteral(" or ")), {}};
}

} // namespace

void PortalShortcutBackend::reportBinding(const GlobalShortcut &shortcut, std::function<void(BindingReport)> done)
{
    if (m_version == 0) {
        done({true, false, {}, QStringLiteral("This desktop offers no global shortcuts to applications.")});
        return;
    }
    auto finish = std::make_shared<std::function<void(BindingReport)>>(std::move(done));
    QPointer<PortalShortcutBackend> self(this);
    openSession(m_connection, QLatin1String(kInterface), QStringLiteral("dictora_check"), this,
        [self, finish, shortcut](const QString &session, const QString &why) {
            if (session.isEmpty()) {
                (*finish)({true, false, {}, QStringLiteral("The desktop did not open a shortcut session%1.").arg(why)});
                return;
            }
            PortalRequest::call(self->m_connection, QLatin1String(kInterface), QStringLiteral("ListShortcuts"),
                {QVariant::fromValue(QDBusObjectPath(session))}, {}, self,
                [self, finish, shortcut, session](ResponseCode code, const QVariantMap &results) {
                    self->m_connection.asyncCall(QDBusMessage::createMethodCall(QLatin1String(kService), session,
                        QLatin1String(kSessionInterface), QStringLiteral("Close")));
                    if (code != ResponseCode::success) {
                        (*finish)({true, false, {},
                            QStringLiteral("The desktop did not list its shortcuts%1.").arg(errorSuffix(results))});
                        return;
                    }
                    QStringList keys;
                    for (const ShortcutEntry &entry : readShortcutList(results.value(QStringLiteral("shortcuts")))) {
                        if (isOurId(entry.id))
                            keys << entry.properties.value(QStringLiteral("trigger_description")).toString();
                    }
                    if (!keys.isEmpty() || currentDesktop() != Desktop::gnome) {
                        (*finish)(boundKeys(keys, shortcut));
                        return;
                    }
                    // GNOME lists a session's keys only once a bind in it has
                    // grabbed them; its settings daemon keeps what a bind would grab.
                    QtConcurrent::run([] { return gnomePortalShortcuts(QLatin1String(kAppId)); })
                        .then(self, [finish, shortcut](const QHash<QString, QStringList> &stored) {
                            QStringList keys;
                            for (auto entry = stored.cbegin(); entry != stored.cend(); ++entry) {
                                if (isOurId(entry.key()))
                                    keys << entry.value();
                            }
                            (*finish)(boundKeys(keys, shortcut));
                        });
                });
        });
}

void PortalShortcutBackend::askAgain()
{
    if (!m_wanted || m_version == 0)
        return;
    m_retry.stop();
    m_retryDelayMs = 0;
    // Where the desktop has a dialog for changing a known shortcut, that is the one to show.
    if (m_version >= 2 && !m_session.isEmpty() && m_stage == Stage::bound) {
        QDBusMessage configure = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
            QLatin1String(kInterface), QStringLiteral("ConfigureShortcuts"));
        configure << QVariant::fromValue(QDBusObjectPath(m_session)) << QString() << QVariant::fromValue(QVariantMap());
        m_connection.asyncCall(configure);
        return;
    }
    begin(true);
}

void PortalShortcutBackend::begin(bool forceBind)
{
    ++m_generation;
    m_keyDown = false;
    m_askAgain = forceBind;
    const std::optional<QStringList> triggers = m_triggers ? m_triggers(*m_wanted) : QStringList();
    if (!triggers) {
        m_stage = Stage::idle;
        m_failureReason = QStringLiteral("Reading the keyboard layouts.");
        return;
    }
    m_ids.clear();
    m_idTriggers.clear();
    for (const QString &trigger : *triggers) {
        if (!m_ids.contains(idFor(trigger))) {
            m_ids << idFor(trigger);
            m_idTriggers << trigger;
        }
    }
    if (m_ids.isEmpty()) {
        m_ids << QString::fromLatin1(kShortcutId);
        m_idTriggers << preferredTrigger(*m_wanted).value_or(QString());
    }
    m_failureReason = QStringLiteral("Waiting for the desktop to bind the shortcut %1.").arg(describe(*m_wanted));
    if (m_session.isEmpty())
        createSession();
    else
        listShortcuts();
}

// One entry per trigger, named after it, so a layout added later is a new
// entry the desktop binds beside the ones it keeps. The default key's US name
// is the plain id; a shortcut chosen in Dictora is a new entry too, since
// Plasma keeps an entry's old key and takes a preferred trigger only for one it has not seen.
QString PortalShortcutBackend::idFor(const QString &trigger) const
{
    const std::optional<QString> usName = preferredTrigger(*m_wanted);
    const GlobalShortcut usual = GlobalShortcut::defaultShortcut();
    const bool defaultKey = m_wanted->keyCode == usual.keyCode && m_wanted->modifiers == usual.modifiers;
    if (!usName || trigger.isEmpty() || (trigger == *usName && defaultKey))
        return QString::fromLatin1(kShortcutId);
    QString id = QLatin1String(kShortcutId) + QLatin1Char('-');
    for (const QChar c : trigger)
        id += (c.isLetterOrNumber() && c.unicode() < 128) ? c : QLatin1Char('_');
    return id;
}

void PortalShortcutBackend::triggersChanged()
{
    if (!m_wanted || m_version == 0 || m_stage == Stage::refused)
        return;
    if (m_stage == Stage::creatingSession || m_stage == Stage::listing || m_stage == Stage::binding) {
        m_recheck = true;
        return;
    }
    const std::optional<QStringList> triggers = m_triggers ? m_triggers(*m_wanted) : QStringList();
    if (!triggers)
        return;
    QStringList ids;
    for (const QString &trigger : *triggers)
        ids << idFor(trigger);
    // The session holds exactly what the layouts call for, nothing left
    // over from a layout the user has removed.
    const auto asSet = [](const QStringList &list) { return QSet<QString>(list.cbegin(), list.cend()); };
    if (m_stage != Stage::idle && asSet(ids) == asSet(m_ids))
        return;
    m_retry.stop();
    m_retryDelayMs = 0;
    m_rebinding = m_stage == Stage::bound;
    m_boundThisRun = false;
    m_stage = Stage::creatingSession;
    const uint generation = ++m_generation;
    // A fresh session, opened once the old one is closed and bound even
    // where the desktop lists the entries: a desktop may grab a session's
    // keys only when asked to bind them (GNOME does).
    closeSession([this, generation] {
        if (generation == m_generation)
            begin(true);
    });
}

void PortalShortcutBackend::createSession()
{
    m_stage = Stage::creatingSession;
    const uint generation = m_generation;
    // The same token every time: after the portal restarts, GNOME's back-end
    // still holds the old session's grab, and only a session on its path gets the key.
    openSession(m_connection, QLatin1String(kInterface), QLatin1String(kSessionToken), this,
        [this, generation](const QString &session, const QString &why) {
            if (generation != m_generation)
                return;
            if (session.isEmpty()) {
                fail(Stage::failed, QStringLiteral("The desktop did not open a shortcut session%1.").arg(why));
                return;
            }
            m_session = session;
            m_connection.connect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
                QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
            listShortcuts();
        });
}

// A desktop that remembers our shortcut from an earlier run lists it; binding
// again would show its dialog for nothing.
void PortalShortcutBackend::listShortcuts()
{
    m_stage = Stage::listing;
    const uint generation = m_generation;
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("ListShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_session))}, {}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            const bool listed = code == ResponseCode::success && takeShortcuts(results.value(QStringLiteral("shortcuts")))
                && std::all_of(m_ids.cbegin(), m_ids.cend(), [this](const QString &id) { return m_listed.contains(id); });
            if (listed && !m_askAgain && (!m_triggerDescription.isEmpty() || m_boundThisRun)) {
                settle();
                return;
            }
            bindShortcuts();
        });
}

void PortalShortcutBackend::bindShortcuts()
{
    m_stage = Stage::binding;
    const uint generation = m_generation;
    QList<ShortcutEntry> list;
    for (int i = 0; i < m_ids.size(); ++i) {
        QVariantMap properties{{QStringLiteral("description"),
            i == 0 ? QStringLiteral("Start or stop a dictation")
                   : QStringLiteral("Start or stop a dictation (the same key on another keyboard layout)")}};
        if (!m_idTriggers.at(i).isEmpty())
            properties.insert(QStringLiteral("preferred_trigger"), m_idTriggers.at(i));
        list.append({m_ids.at(i), properties});
    }
    PortalRequest::call(m_connection, QLatin1String(kInterface), QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_session)), QVariant::fromValue(list), QString()}, {}, this,
        [this, generation](ResponseCode code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            m_askAgain = false;
            if (code == ResponseCode::cancelled) {
                fail(Stage::refused, QStringLiteral("The shortcut was declined in the desktop's dialog. Choose "
                                                    "Ask the Desktop Again to be asked once more."));
                return;
            }
            // GNOME answers a bind of shortcuts it already knows with an
            // error that lists them: they are bound, and they fire.
            const bool listed = takeShortcuts(results.value(QStringLiteral("shortcuts")));
            if (code != ResponseCode::success && !listed) {
                fail(Stage::failed, QStringLiteral("The desktop could not bind the shortcut%1.").arg(errorSuffix(results)));
                return;
            }
            m_boundThisRun = true;
            settle();
        });
}

bool PortalShortcutBackend::takeShortcuts(const QVariant &shortcuts)
{
    QStringList descriptions;
    bool found = false;
    m_listed.clear();
    for (const ShortcutEntry &entry : readShortcutList(shortcuts)) {
        if (!isOurId(entry.id))
            continue;
        m_listed << entry.id;
        found = true;
        QString description = entry.properties.value(QStringLiteral("trigger_description")).toString().trimmed();
        // A key bound by its keycode is described by it ("Press 0x31"): say the key's own name.
        if (m_wanted && description.contains(QLatin1String("0x")))
            description.replace(QRegularExpression(QStringLiteral("\\b0x[0-9a-fA-F]+\\b")), m_wanted->keyLabel);
        if (!description.isEmpty() && !descriptions.contains(description))
            descriptions << description;
    }
    if (found)
        m_triggerDescription = descriptions.join(QStringLiteral(" or "));
    return found;
}

// The desktop has answered: bound when it names a key, else waiting for the user.
void PortalShortcutBackend::settle()
{
    m_retry.stop();
    m_retryDelayMs = 0;
    m_rebinding = false;
    // Hyprland's portal never names a key: the user's config gives it one
    // (the shortcut sheet shows the line), so there is nothing to wait for.
    if (m_triggerDescription.isEmpty() && currentDesktop() != Desktop::hyprland) {
        m_stage = Stage::keyless;
        m_failureReason = QStringLiteral("The desktop lists \"Start or stop a dictation\" without a key. Choose one "
                                         "in the desktop's keyboard shortcut settings.");
    } else {
        m_stage = Stage::bound;
        m_failureReason.clear();
    }
    qCInfo(lcPortal, "portal shortcut stage=%s trigger=%s", m_stage == Stage::bound ? "bound" : "keyless",
        qPrintable(m_triggerDescription));
    Q_EMIT installationChanged();
    if (std::exchange(m_recheck, false))
        triggersChanged();
}

void PortalShortcutBackend::fail(Stage stage, const QString &reason)
{
    qCInfo(lcPortal, "portal shortcut stage=%s reason=%s", stage == Stage::refused ? "refused" : "failed", qPrintable(reason));
    m_stage = stage;
    m_failureReason = reason;
    m_rebinding = m_recheck = false;
    if (stage == Stage::failed) {
        m_retryDelayMs = m_retryDelayMs == 0 ? kFirstRetryMs : std::min(2 * m_retryDelayMs, kLongestRetryMs);
        m_retry.start(m_retryDelayMs);
        m_failureReason += QStringLiteral(" Dictora tries again in %1 s.").arg(m_retryDelayMs / 1000);
    }
    Q_EMIT installationChanged();
}

void PortalShortcutBackend::forgetSession()
{
    if (!m_session.isEmpty()) {
        m_connection.disconnect(QLatin1String(kService), m_session, QLatin1String(kSessionInterface),
            QStringLiteral("Closed"), this, SLOT(onSessionClosed()));
    }
    m_session.clear();
    m_keyDown = false;
}

void PortalShortcutBackend::closeSession(std::function<void()> then)
{
    if (m_session.isEmpty()) {
        if (then)
            then();
        return;
    }
    QDBusMessage close = QDBusMessage::createMethodCall(QLatin1String(kService), m_session,
        QLatin1String(kSessionInterface), QStringLiteral("Close"));
    forgetSession();
    const QDBusPendingCall pending = m_connection.asyncCall(close);
    if (!then)
        return;
    // Answered or not (a portal that went away), the old session is over.
    auto *watcher = new QDBusPendingCallWatcher(pending, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, then = std::move(then)] {
        watcher->deleteLater();
        then();
    });
}

// Activated and Deactivated carry (session o, shortcut id s, timestamp t, options a{sv}).
bool PortalShortcutBackend::isOurs(const QDBusMessage &message) const
{
    const QList<QVariant> arguments = message.arguments();
    return !m_session.isEmpty() && arguments.size() >= 2
        && qvariant_cast<QDBusObjectPath>(arguments.at(0)).path() == m_session
        && isOurId(arguments.at(1).toString());
}

void PortalShortcutBackend::onActivated(const QDBusMessage &message)
{
    // A second Activated without Deactivated is a held key, or the same
    // key matched under two of our triggers.
    if (!isOurs(message) || m_keyDown)
        return;
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
    if (m_session.isEmpty() || arguments.size() < 2 || qvariant_cast<QDBusObjectPath>(arguments.at(0)).path() != m_session)
        return;
    // The user changed, set or removed the key in the desktop's settings.
    if (!takeShortcuts(arguments.at(1)))
        m_triggerDescription.clear();
    if (m_stage == Stage::bound || m_stage == Stage::keyless)
        settle();
}

void PortalShortcutBackend::onSessionClosed()
{
    const bool wasBound = m_stage == Stage::bound;
    forgetSession();
    if (wasBound || m_stage == Stage::keyless)
        fail(Stage::failed, QStringLiteral("The desktop ended Dictora's shortcut session."));
}

} // namespace dictora::portal
