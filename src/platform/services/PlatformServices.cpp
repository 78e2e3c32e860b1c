#include "platform/services/PlatformServices.h"

#include "platform/FocusAtPasteWindowTracker.h"
#include "platform/kde/KdePlatform.h"
#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/LayoutWatch.h"
#include "platform/portal/PortalDesktopIntegration.h"
#include "platform/portal/PortalPlatform.h"
#include "platform/portal/UinputKeystrokeSender.h"
#include "platform/x11/X11ClipboardContents.h"
#include "platform/x11/X11Platform.h"
#ifdef DICTORA_HAVE_WAYLAND
#include "platform/wayland/WaylandPlatform.h"
#endif

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMutex>
#include <QSaveFile>
#include <QStandardPaths>

#include <QDBusConnection>

#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>
#include <vector>

namespace dictora {

DesktopSession DesktopSession::fromEnvironment(const QProcessEnvironment &env)
{
    DesktopSession session;
    session.wayland = !env.value(QStringLiteral("WAYLAND_DISPLAY")).isEmpty()
                      || env.value(QStringLiteral("XDG_SESSION_TYPE")).compare(QLatin1String("wayland"),
                                                                               Qt::CaseInsensitive) == 0;
    session.x11 = !env.value(QStringLiteral("DISPLAY")).isEmpty();
    session.desktop = env.value(QStringLiteral("XDG_CURRENT_DESKTOP")).toLower();
    return session;
}

namespace Platform {

namespace {

QMutex reportMutex;
QStringList report;

void note(const QString &line)
{
    const QMutexLocker lock(&reportMutex);
    report << QStringLiteral("platform backend ") + line;
}

// One row of a service's table. `create` returns nothing, with a reason,
// when the desktop lacks what the backend needs; the next row is tried.
template <typename T>
struct Backend {
    const char *name;
    bool (*applies)(const DesktopSession &);
    std::function<std::unique_ptr<T>(QString *why)> create;
};

bool always(const DesktopSession &) { return true; }
bool waylandSession(const DesktopSession &s) { return s.wayland; }
bool kdeWaylandSession(const DesktopSession &s) { return s.wayland && s.desktop.contains(QLatin1String("kde")); }

// What the user answered the desktop about typing, as the sender last heard.
std::atomic<portal::SessionMechanisms::Typing> typingConsent{portal::SessionMechanisms::Typing::unknown};

// The portal's permission to type, kept so the desktop asks only once.
QString remoteDesktopTokenPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + QStringLiteral("/Dictora/remote-desktop-token");
}

portal::RemoteDesktopKeystrokeSender::TokenStore remoteDesktopTokens()
{
    return {
        [] {
            QFile file(remoteDesktopTokenPath());
            return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
        },
        [](const QString &token) {
            if (token.isEmpty()) {
                QFile::remove(remoteDesktopTokenPath());
                return;
            }
            QDir().mkpath(QFileInfo(remoteDesktopTokenPath()).path());
            QSaveFile file(remoteDesktopTokenPath());
            if (file.open(QIODevice::WriteOnly)) {
                file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
                file.write(token.toUtf8());
                file.commit();
            }
        },
    };
}

// What a Wayland desktop without the wlroots protocols offers, asked once:
// the rows below and the permission check must agree on it.
portal::SessionMechanisms portalMechanisms()
{
    static const portal::SessionMechanisms mechanisms = [] {
        // Before anything else asks the portal, so it knows who is asking.
        PortalPlatform::registerWithPortal();
        portal::SessionMechanisms m;
        m.desktop = portal::currentDesktop();
        using Shortcut = portal::SessionMechanisms::Shortcut;
        using Keystroke = portal::SessionMechanisms::Keystroke;
        if (PortalPlatform::hasGlobalShortcutsPortal())
            m.shortcut = Shortcut::portal;
        else if (m.desktop == portal::Desktop::gnome)
            m.shortcut = Shortcut::gnomeKeybinding;
        else
            m.shortcut = Shortcut::compositorBinding;
        m.keystroke = PortalPlatform::hasRemoteDesktopPortal() ? Keystroke::remoteDesktop : Keystroke::uinput;
#ifdef DICTORA_HAVE_WAYLAND
        // The keystroke table takes the compositor's virtual keyboard first
        // (COSMIC has one without the wlroots window list): nothing to ask.
        if (WaylandPlatform::offers("zwp_virtual_keyboard_manager_v1"))
            m.keystroke = Keystroke::compositorKeyboard;
#endif
        m.typingConsent = [] { return typingConsent.load(); };
        return m;
    }();
    return mechanisms;
}

bool portalShortcut(const DesktopSession &s)
{
    return s.wayland && portalMechanisms().shortcut == portal::SessionMechanisms::Shortcut::portal;
}

template <typename T>
std::unique_ptr<T> choose(const char *service, const std::vector<Backend<T>> &table)
{
    const DesktopSession session = DesktopSession::fromEnvironment();
    for (const Backend<T> &backend : table) {
        if (!backend.applies(session))
            continue;
        QString why;
        if (std::unique_ptr<T> made = backend.create(&why)) {
            note(QStringLiteral("service=%1 backend=%2").arg(QLatin1String(service), QLatin1String(backend.name)));
            return made;
        }
        note(QStringLiteral("service=%1 skipped=%2 reason=%3")
                 .arg(QLatin1String(service), QLatin1String(backend.name), why));
    }
    return nullptr; // unreachable: every table ends in a backend that always works
}

} // namespace

namespace {
// What chooseQtPlatform() changed, and the value each had before (nullopt: unset).
std::vector<std::pair<const char *, std::optional<QByteArray>>> inheritedEnvironment;

void setForQt(const char *name, const QByteArray &value)
{
    inheritedEnvironment.emplace_back(name, qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt);
    qputenv(name, value);
}
} // namespace

void chooseQtPlatform()
{
    // A session-wide QT_QPA_PLATFORM=wayland (Plasma sets one) would put the
    // indicator where Wayland lets no client place a window.
    const DesktopSession session = DesktopSession::fromEnvironment();
    if (session.wayland && session.x11 && qgetenv("QT_QPA_PLATFORM") != "xcb")
        setForQt("QT_QPA_PLATFORM", "xcb");
    // Over shared memory, Qt asks the X server for a round trip before each
    // repaint of a window it painted lately; the indicator repaints with
    // every level, and a busy X server (XWayland above all) then held the GUI
    // thread for tens of milliseconds. Its pixels are few: send them instead.
    if (session.x11 && !qEnvironmentVariableIsSet("QT_XCB_NO_MITSHM"))
        setForQt("QT_XCB_NO_MITSHM", "1");
}

void restoreInheritedEnvironment()
{
    for (const auto &[name, value] : inheritedEnvironment) {
        if (value)
            qputenv(name, *value);
        else
            qunsetenv(name);
    }
    inheritedEnvironment.clear();
}

void probeDesktopSoon()
{
    if (DesktopSession::fromEnvironment().wayland)
        PortalPlatform::probeSoon();
}

// The tables. A new desktop's backend goes in as a row before the ones it
// should win over, with the sessions it applies to.

std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent)
{
    return choose<ShortcutBackend>("shortcut", {
        {"portal-global-shortcuts", portalShortcut,
            [parent](QString *) { return PortalPlatform::createPortalShortcutBackend(parent); }},
        {"desktop-binding", waylandSession, [parent](QString *) {
            return PortalPlatform::createDesktopBindingShortcutBackend(portal::currentDesktop(), parent);
        }},
        {"x11-key-grab", always, [parent](QString *) { return X11Platform::createShortcutBackend(parent); }},
    });
}

std::unique_ptr<WindowTracker> createWindowTracker()
{
    return choose<WindowTracker>("window-tracker", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-foreign-toplevel", waylandSession, WaylandPlatform::createWindowTracker},
#endif
        {"kwin-scripting", kdeWaylandSession, KdePlatform::createWindowTracker},
        // Native windows are invisible to the X11 tracker, so it would find no target at all.
        {"focus-at-paste", waylandSession, [](QString *) { return std::make_unique<FocusAtPasteWindowTracker>(); }},
        {"x11-active-window", always, [](QString *) { return X11Platform::createWindowTracker(); }},
    });
}

std::unique_ptr<KeystrokeSender> createKeystrokeSender()
{
    return choose<KeystrokeSender>("paste-keystroke", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-virtual-keyboard", waylandSession, WaylandPlatform::createKeystrokeSender},
#endif
        {"portal-remote-desktop", waylandSession, [](QString *why) -> std::unique_ptr<KeystrokeSender> {
            if (portalMechanisms().keystroke != portal::SessionMechanisms::Keystroke::remoteDesktop) {
                *why = QStringLiteral("the desktop portal offers no RemoteDesktop interface");
                return nullptr;
            }
            auto sender = std::make_unique<portal::RemoteDesktopKeystrokeSender>(
                QDBusConnection::sessionBus(), remoteDesktopTokens());
            const auto follow = [raw = sender.get()] {
                using Consent = portal::RemoteDesktopKeystrokeSender::Consent;
                using Typing = portal::SessionMechanisms::Typing;
                const Consent c = raw->consent();
                typingConsent = c == Consent::allowed ? Typing::allowed : c == Consent::refused ? Typing::refused : Typing::unknown;
            };
            // Ctrl+V is V on the first layout; where one layout has no Latin V,
            // the paste key must not depend on the active one.
            const auto followLayouts = [raw = sender.get()] {
                const std::optional<QList<portal::LayoutName>> layouts = portal::LayoutWatch::instance().layouts();
                if (!layouts)
                    return;
                raw->setKeyForV(portal::evdevCodeForV(layouts->value(0)));
                raw->setVOnEveryLayout(std::all_of(layouts->cbegin(), layouts->cend(), &portal::typesLatinV));
            };
            QObject::connect(&portal::LayoutWatch::instance(), &portal::LayoutWatch::changed, sender.get(), followLayouts);
            followLayouts();
            QObject::connect(sender.get(), &portal::RemoteDesktopKeystrokeSender::stageChanged, sender.get(), follow);
            follow();
            return sender;
        }},
        {"uinput", waylandSession, [](QString *why) -> std::unique_ptr<KeystrokeSender> {
            *why = portal::UinputKeystrokeSender::accessProblem();
            return why->isEmpty() ? PortalPlatform::createUinputKeystrokeSender() : nullptr;
        }},
        {"x11-xtest", always, [](QString *) { return X11Platform::createKeystrokeSender(); }},
    });
}

std::unique_ptr<DesktopIntegration> createDesktopIntegration(ShortcutBackend &shortcut, KeystrokeSender &keystrokes)
{
    return std::make_unique<portal::PortalDesktopIntegration>(shortcut, keystrokes, createPermissionProbe());
}

std::unique_ptr<PermissionProbe> createPermissionProbe()
{
    return choose<PermissionProbe>("permissions", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-wlroots", waylandSession, WaylandPlatform::createPermissionProbe},
#endif
        {"portal-desktop", waylandSession,
            [](QString *) { return PortalPlatform::createPermissionProbe(portalMechanisms()); }},
        {"x11", always, [](QString *) { return X11Platform::createPermissionProbe(); }},
    });
}

std::unique_ptr<Clipboard> createClipboard(QObject *parent)
{
    return choose<Clipboard>("clipboard", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-data-control", waylandSession,
            [parent](QString *why) { return WaylandPlatform::createClipboard(parent, why); }},
#endif
        {"qt-clipboard", always, [parent](QString *) {
            return std::make_unique<QtClipboard>(X11Platform::createClipboardReadWatcher(nullptr),
                [] { return x11::readClipboardContents(std::chrono::milliseconds(800)); }, parent);
        }},
    });
}

std::unique_ptr<OverlayWindowHints> createOverlayWindowHints()
{
    return X11Platform::createOverlayWindowHints();
}

QStringList takeBackendReport()
{
    const QMutexLocker lock(&reportMutex);
    if (qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        report.prepend(QStringLiteral("platform backend service=windows backend=qt-")
                       + QGuiApplication::platformName());
    const DesktopSession session = DesktopSession::fromEnvironment();
    report.prepend(QStringLiteral("platform session type=%1 desktop=%2")
                       .arg(session.wayland ? QStringLiteral("wayland") : QStringLiteral("x11"),
                            session.desktop.isEmpty() ? QStringLiteral("unknown") : session.desktop));
    return std::exchange(report, {});
}

} // namespace Platform

} // namespace dictora
