#include "platform/wayland/WaylandWindowTracker.h"

#include "dictora-wlr-foreign-toplevel-client-protocol.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QThread>

#include <wayland-client.h>

#include <unistd.h>

namespace dictora::wayland {

struct ToplevelEvents {
    static WaylandWindowTracker::Toplevel *toplevel(void *data, zwlr_foreign_toplevel_handle_v1 *handle)
    {
        auto *tracker = static_cast<WaylandWindowTracker *>(data);
        auto it = tracker->m_toplevels.find(handle);
        return it == tracker->m_toplevels.end() ? nullptr : &it->second;
    }
    static void title(void *data, zwlr_foreign_toplevel_handle_v1 *handle, const char *title)
    {
        if (auto *t = toplevel(data, handle))
            t->pendingTitle = QString::fromUtf8(title);
    }
    static void appId(void *data, zwlr_foreign_toplevel_handle_v1 *handle, const char *appId)
    {
        if (auto *t = toplevel(data, handle))
            t->pendingAppId = QString::fromUtf8(appId);
    }
    static void outputEnter(void *, zwlr_foreign_toplevel_handle_v1 *, wl_output *) {}
    static void outputLeave(void *, zwlr_foreign_toplevel_handle_v1 *, wl_output *) {}
    static void state(void *data, zwlr_foreign_toplevel_handle_v1 *handle, wl_array *states)
    {
        auto *t = toplevel(data, handle);
        if (!t)
            return;
        bool activated = false;
        const auto *items = static_cast<const uint32_t *>(states->data);
        for (size_t i = 0; i < states->size / sizeof(uint32_t); ++i)
            activated = activated || items[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED;
        t->pendingActivated = activated;
        t->pendingState = true;
    }
    static void done(void *data, zwlr_foreign_toplevel_handle_v1 *handle)
    {
        auto *t = toplevel(data, handle);
        if (!t)
            return;
        // Title and app id are sent only when they change; state likewise.
        if (!t->pendingTitle.isNull())
            t->title = std::exchange(t->pendingTitle, QString());
        if (!t->pendingAppId.isNull())
            t->appId = std::exchange(t->pendingAppId, QString());
        if (t->pendingState)
            t->activated = t->pendingActivated;
        t->pendingState = false;
    }
    static void closed(void *data, zwlr_foreign_toplevel_handle_v1 *handle)
    {
        auto *tracker = static_cast<WaylandWindowTracker *>(data);
        tracker->m_toplevels.erase(handle);
        zwlr_foreign_toplevel_handle_v1_destroy(handle);
    }
    static void newToplevel(void *data, zwlr_foreign_toplevel_manager_v1 *, zwlr_foreign_toplevel_handle_v1 *handle)
    {
        static const zwlr_foreign_toplevel_handle_v1_listener listener{
            title, appId, outputEnter, outputLeave, state, done, closed};
        auto *tracker = static_cast<WaylandWindowTracker *>(data);
        WaylandWindowTracker::Toplevel &t = tracker->m_toplevels[handle];
        t.id = tracker->m_nextId++;
        t.handle = handle;
        zwlr_foreign_toplevel_handle_v1_add_listener(handle, &listener, tracker);
    }
    static void finished(void *data, zwlr_foreign_toplevel_manager_v1 *manager)
    {
        auto *tracker = static_cast<WaylandWindowTracker *>(data);
        zwlr_foreign_toplevel_manager_v1_destroy(manager);
        tracker->m_manager = nullptr;
    }
};

namespace {
const zwlr_foreign_toplevel_manager_v1_listener managerListener{ToplevelEvents::newToplevel,
                                                               ToplevelEvents::finished};

// Our own windows run through XWayland, where the compositor names them by
// their X11 class: Qt's is the application name.
bool isOwnAppId(const QString &appId)
{
    if (appId.isEmpty())
        return false;
    const QString application = QCoreApplication::applicationName();
    if (!application.isEmpty() && appId.compare(application, Qt::CaseInsensitive) == 0)
        return true;
    const QString desktopFile = QGuiApplication::desktopFileName();
    return !desktopFile.isEmpty() && appId.compare(desktopFile, Qt::CaseInsensitive) == 0;
}
} // namespace

WaylandWindowTracker::WaylandWindowTracker()
    : m_connection(std::make_unique<WaylandConnection>())
{
    if (!m_connection->isOpen())
        return;
    m_seat = static_cast<wl_seat *>(m_connection->bind(&wl_seat_interface, 1));
    m_manager = static_cast<zwlr_foreign_toplevel_manager_v1 *>(
        m_connection->bind(&zwlr_foreign_toplevel_manager_v1_interface, 1));
    if (!m_manager)
        return;
    zwlr_foreign_toplevel_manager_v1_add_listener(m_manager, &managerListener, this);
    // One round trip announces the windows, the next delivers their state.
    m_connection->roundtrip();
    m_connection->roundtrip();
}

WaylandWindowTracker::~WaylandWindowTracker()
{
    for (auto &[handle, toplevel] : m_toplevels)
        zwlr_foreign_toplevel_handle_v1_destroy(handle);
    m_toplevels.clear();
    if (m_manager)
        zwlr_foreign_toplevel_manager_v1_destroy(m_manager);
    if (m_seat)
        wl_seat_destroy(m_seat);
    if (m_connection->isOpen())
        m_connection->flush();
}

bool WaylandWindowTracker::isUsable() const
{
    return m_connection->isOpen() && m_manager && m_seat;
}

QString WaylandWindowTracker::failureReason() const
{
    if (!m_connection->isOpen())
        return m_connection->failureReason();
    if (!m_manager)
        return QStringLiteral("The compositor does not offer the foreign toplevel protocol "
                              "(zwlr_foreign_toplevel_manager_v1), so Dictora cannot tell which window "
                              "to paste into.");
    if (!m_seat)
        return QStringLiteral("The compositor offers no seat, so Dictora cannot activate windows.");
    return {};
}

WaylandWindowTracker::Toplevel *WaylandWindowTracker::find(WindowHandle window)
{
    for (auto &[handle, toplevel] : m_toplevels) {
        if (toplevel.id == window.value)
            return &toplevel;
    }
    return nullptr;
}

std::optional<FrontmostWindow> WaylandWindowTracker::frontmostWindow()
{
    for (const auto &[handle, toplevel] : m_toplevels) {
        if (!toplevel.activated)
            continue;
        FrontmostWindow result;
        result.windowClass = toplevel.appId;
        result.window = WindowHandle{toplevel.id};
        // The protocol names no process; our own windows are still ours.
        result.processId = isOwnAppId(toplevel.appId) ? static_cast<qint32>(::getpid()) : 0;
        if (auto name = m_desktopEntries.nameForWindow(toplevel.appId))
            result.applicationName = *name;
        else
            result.applicationName = toplevel.appId;
        return result;
    }
    return std::nullopt;
}

bool WaylandWindowTracker::isActive(WindowHandle window)
{
    const Toplevel *toplevel = window.isNull() ? nullptr : find(window);
    return toplevel && toplevel->activated;
}

void WaylandWindowTracker::requestActivation(WindowHandle window)
{
    Toplevel *toplevel = window.isNull() ? nullptr : find(window);
    if (!toplevel || !m_seat || !m_connection->isOpen())
        return;
    zwlr_foreign_toplevel_handle_v1_activate(toplevel->handle, m_seat);
    m_connection->flush();
}


} // namespace dictora::wayland
