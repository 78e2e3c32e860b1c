#include "platform/services/PlatformServices.h"

#include "platform/x11/X11Platform.h"
#ifdef DICTORA_HAVE_WAYLAND
#include "platform/wayland/WaylandPlatform.h"
#endif

#include <QCoreApplication>
#include <QGuiApplication>
#include <QMutex>

#include <functional>
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
[[maybe_unused]] bool waylandSession(const DesktopSession &s) { return s.wayland; }

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

void chooseQtPlatform()
{
    const DesktopSession session = DesktopSession::fromEnvironment();
    if (session.wayland && session.x11 && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
}

// The tables. A new desktop's backend goes in as a row before the ones it
// should win over, with the sessions it applies to.

std::unique_ptr<ShortcutBackend> createShortcutBackend(QObject *parent)
{
    return choose<ShortcutBackend>("shortcut", {
        {"x11-key-grab", always, [parent](QString *) { return X11Platform::createShortcutBackend(parent); }},
    });
}

std::unique_ptr<WindowTracker> createWindowTracker()
{
    return choose<WindowTracker>("window-tracker", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-foreign-toplevel", waylandSession, WaylandPlatform::createWindowTracker},
#endif
        {"x11-active-window", always, [](QString *) { return X11Platform::createWindowTracker(); }},
    });
}

std::unique_ptr<KeystrokeSender> createKeystrokeSender()
{
    return choose<KeystrokeSender>("paste-keystroke", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-virtual-keyboard", waylandSession, WaylandPlatform::createKeystrokeSender},
#endif
        {"x11-xtest", always, [](QString *) { return X11Platform::createKeystrokeSender(); }},
    });
}

std::unique_ptr<PermissionProbe> createPermissionProbe()
{
    return choose<PermissionProbe>("permissions", {
#ifdef DICTORA_HAVE_WAYLAND
        {"wayland-wlroots", waylandSession, WaylandPlatform::createPermissionProbe},
#endif
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
            return std::make_unique<QtClipboard>(X11Platform::createClipboardReadWatcher(nullptr), parent);
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
