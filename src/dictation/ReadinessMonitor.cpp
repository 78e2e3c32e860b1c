#include "dictation/ReadinessMonitor.h"

#include "core/Async.h"

#include <QPointer>

namespace dictora {

namespace {

QString shortcutText(const GlobalShortcut &shortcut)
{
    return shortcut.modifiers.displayPrefix() + shortcut.keyLabel;
}

} // namespace

ReadinessMonitor::ReadinessMonitor(ShortcutBackend &shortcut, PermissionProbe &permissions, MicrophonePort &microphone,
    OnboardingModel &onboarding, ProductPreferences &preferences, Periods periods, QObject *parent)
    : QObject(parent)
    , m_shortcut(shortcut)
    , m_permissions(permissions)
    , m_microphonePort(microphone)
    , m_onboarding(onboarding)
    , m_preferences(preferences)
{
    m_shortcutRetry.setInterval(periods.shortcutRetryMs);
    connect(&m_shortcutRetry, &QTimer::timeout, this, &ReadinessMonitor::installCurrentShortcutSilently);

    m_permissionPoll.setInterval(periods.permissionPollMs);
    connect(&m_permissionPoll, &QTimer::timeout, this, [this] {
        if (!m_onboarding.isPresented())
            return;
        refreshPermissions([this] {
            if (!m_permissionPoll.isActive() || !m_onboarding.permissions().bothAuthorized())
                return;
            installCurrentShortcutSilently();
            m_permissionPoll.stop();
        });
    });

    // A backend whose binding completes later (a consent dialog) tells us so.
    connect(&m_shortcut, &ShortcutBackend::installationChanged, this,
        &ReadinessMonitor::installCurrentShortcutSilently);
}

ReadinessMonitor::~ReadinessMonitor()
{
    m_desktopCheck.waitForFinished();
}

void ReadinessMonitor::installCurrentShortcutSilently()
{
    refreshPermissions();
    const GlobalShortcut candidate = m_pendingShortcutUpdate.value_or(m_preferences.keyboardShortcut());
    const bool ok = m_shortcut.install(candidate) && m_shortcut.verifyInstalled(candidate);
    if (ok) {
        m_shortcutRetry.stop();
        if (m_pendingShortcutUpdate && *m_pendingShortcutUpdate == candidate) {
            m_preferences.setKeyboardShortcut(candidate);
            m_pendingShortcutUpdate.reset();
            m_rollbackOnRefusal = false;
            qCInfo(lcSession).noquote() << QStringLiteral("global shortcut update completed shortcut=") + shortcutText(candidate);
        }
        Q_EMIT shortcutInstalled();
        m_loggedAccessibilityWait = false;
        // The backend confirms again on every change it reports; the log says it once.
        if (m_loggedInstalled != candidate) {
            m_loggedInstalled = candidate;
            qCInfo(lcSession).noquote() << QStringLiteral("global shortcut event tap installed shortcut=") + shortcutText(candidate);
        }
        m_onboarding.showPracticeWhenReady();
        return;
    }
    if (m_rollbackOnRefusal && m_pendingShortcutUpdate && !m_shortcut.isAwaitingDesktop()) {
        // The desktop refused the new key: the one in the preferences comes back.
        qCInfo(lcSession).noquote() << QStringLiteral("global shortcut update rolled back candidate=")
                                           + shortcutText(*m_pendingShortcutUpdate) + QStringLiteral(" reason=")
                                           + m_shortcut.failureReason();
        m_pendingShortcutUpdate.reset();
        m_rollbackOnRefusal = false;
        Q_EMIT shortcutUpdateRefused(m_shortcut.failureReason());
        installCurrentShortcutSilently();
        return;
    }
    Q_EMIT shortcutMissing();
    m_loggedInstalled.reset();
    if (!m_loggedAccessibilityWait) {
        m_loggedAccessibilityWait = true;
        qCInfo(lcSession).noquote() << QStringLiteral("waiting for Accessibility permission reason=") + m_shortcut.failureReason();
    }
    if (!m_shortcutRetry.isActive())
        m_shortcutRetry.start();
}

ShortcutUpdateResult ReadinessMonitor::updateKeyboardShortcut(const GlobalShortcut &candidate)
{
    const GlobalShortcutValidation validation = GlobalShortcutValidator::validate(candidate);
    if (!validation.valid) {
        const QString message = validation.message.isEmpty()
            ? QStringLiteral("Choose a different keyboard shortcut.")
            : validation.message;
        return ShortcutUpdateResult::failed(message);
    }
    // The last desktop check answers "trusted"; before the first answer the
    // grab itself is the test. On X11 a refused grab is a plain failure
    // below, with the previous shortcut restored.
    if (m_desktop && !m_desktop->authorized) {
        m_pendingShortcutUpdate = candidate;
        Q_EMIT shortcutMissing();
        installCurrentShortcutSilently();
        return ShortcutUpdateResult::needsAccessibility();
    }
    const GlobalShortcut previous = m_preferences.keyboardShortcut();
    if (m_shortcut.install(candidate) && m_shortcut.verifyInstalled(candidate)) {
        m_preferences.setKeyboardShortcut(candidate);
        m_pendingShortcutUpdate.reset();
        m_rollbackOnRefusal = false;
        Q_EMIT shortcutInstalled();
        qCInfo(lcSession).noquote() << QStringLiteral("global shortcut updated shortcut=") + shortcutText(candidate);
        return ShortcutUpdateResult::updated();
    }
    if (m_shortcut.isAwaitingDesktop()) {
        // The desktop answers later: the change completes then, or the
        // shortcut stays as it was (installCurrentShortcutSilently).
        m_pendingShortcutUpdate = candidate;
        m_rollbackOnRefusal = true;
        qCInfo(lcSession).noquote() << QStringLiteral("global shortcut update waits for the desktop candidate=")
                                           + shortcutText(candidate);
        return ShortcutUpdateResult::waitingForDesktop();
    }
    m_shortcut.install(previous);
    qCInfo(lcSession).noquote() << QStringLiteral("global shortcut update rolled back candidate=") + shortcutText(candidate);
    return ShortcutUpdateResult::failed(
        QStringLiteral("That shortcut could not be activated. Your previous shortcut still works."));
}

void ReadinessMonitor::refreshPermissions(std::function<void()> then)
{
    if (then)
        m_refreshWaiters.push_back(std::move(then));
    if (m_answersPending > 0)
        return;
    m_answersPending = 2;
    QPointer<ReadinessMonitor> self(this);
    m_microphonePort.checkStatus([self](MicrophonePort::Status status) {
        if (!self)
            return;
        self->m_microphone = std::move(status);
        self->permissionsAnswered();
    });
    PermissionProbe *probe = &m_permissions;
    m_desktopCheck = runElsewhere(this, [probe] { return probe->accessibility(nullptr); }, [this](PermissionCheck check) {
        m_desktop = std::move(check);
        permissionsAnswered();
    });
}

void ReadinessMonitor::permissionsAnswered()
{
    if (--m_answersPending > 0)
        return;
    const bool accessible = m_desktop && m_desktop->authorized && m_shortcut.failureReason().isEmpty();
    m_onboarding.setPermissions({m_microphone.status,
        accessible ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied});
    std::vector<std::function<void()>> waiters;
    waiters.swap(m_refreshWaiters);
    for (const auto &waiter : waiters)
        waiter();
}

QString ReadinessMonitor::accessibilityReason() const
{
    if (m_desktop && !m_desktop->authorized)
        return m_desktop->reason;
    return m_shortcut.failureReason();
}

void ReadinessMonitor::startPermissionPolling()
{
    if (!m_permissionPoll.isActive())
        m_permissionPoll.start();
}

void ReadinessMonitor::stopPermissionPolling()
{
    m_permissionPoll.stop();
}

void ReadinessMonitor::requestNextPermissionIfNeeded()
{
    if (!m_onboarding.isPresented())
        return;
    refreshPermissions([this] {
        const OnboardingPermissionStatus microphone = m_onboarding.permissions().microphone;
        if (microphone == OnboardingPermissionStatus::notDetermined) {
            m_onboarding.setRequestingPermissions(true);
            QPointer<ReadinessMonitor> self(this);
            m_microphonePort.requestPermission([self](bool) {
                if (!self)
                    return;
                self->m_onboarding.setRequestingPermissions(false);
                self->refreshPermissions([self] {
                    if (self && self->m_onboarding.permissions().microphone == OnboardingPermissionStatus::authorized)
                        self->installCurrentShortcutSilently();
                });
            });
            return;
        }
        if (microphone == OnboardingPermissionStatus::authorized)
            installCurrentShortcutSilently();
    });
}

void ReadinessMonitor::requestMicrophonePermission(const std::function<void()> &openSettings)
{
    m_onboarding.setRequestingPermissions(true);
    if (m_microphone.status == OnboardingPermissionStatus::denied && openSettings)
        openSettings();
    QPointer<ReadinessMonitor> self(this);
    m_microphonePort.requestPermission([self](bool) {
        if (!self)
            return;
        self->m_onboarding.setRequestingPermissions(false);
        self->refreshPermissions();
        self->requestNextPermissionIfNeeded();
    });
}

} // namespace dictora
