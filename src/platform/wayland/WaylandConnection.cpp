#include "platform/wayland/WaylandConnection.h"

#include <QAbstractEventDispatcher>
#include <QSocketNotifier>
#include <QThread>

#include <wayland-client.h>

#include <cerrno>
#include <cstring>

namespace dictora::wayland {

namespace {

void onGlobal(void *data, wl_registry *, uint32_t name, const char *interface, uint32_t version)
{
    auto *globals = static_cast<std::vector<WaylandConnection::Global> *>(data);
    globals->push_back({name, QString::fromLatin1(interface), version});
}

void onGlobalRemove(void *data, wl_registry *, uint32_t name)
{
    auto *globals = static_cast<std::vector<WaylandConnection::Global> *>(data);
    std::erase_if(*globals, [name](const WaylandConnection::Global &g) { return g.name == name; });
}

const wl_registry_listener registryListener{onGlobal, onGlobalRemove};

} // namespace

WaylandConnection::WaylandConnection(bool watch, QObject *parent)
    : QObject(parent)
{
    const QByteArray name = qgetenv("WAYLAND_DISPLAY");
    if (name.isEmpty()) {
        m_failure = QStringLiteral("No Wayland compositor is available (WAYLAND_DISPLAY is not set).");
        return;
    }
    m_display = wl_display_connect(nullptr);
    if (!m_display) {
        m_failure = QStringLiteral("Dictora could not connect to the Wayland compositor %1: %2.")
                        .arg(QString::fromLocal8Bit(name), QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    m_registry = wl_display_get_registry(m_display);
    wl_registry_add_listener(m_registry, &registryListener, &m_globals);
    if (wl_display_roundtrip(m_display) < 0) {
        markBroken();
        return;
    }
    if (watch) {
        m_notifier = std::make_unique<QSocketNotifier>(wl_display_get_fd(m_display), QSocketNotifier::Read);
        connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { readEvents(); });
        // Requests made by listeners or callers go out before the loop sleeps.
        if (auto *dispatcher = QAbstractEventDispatcher::instance(thread()))
            connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, &WaylandConnection::flush);
    }
}

WaylandConnection::~WaylandConnection()
{
    m_notifier.reset();
    if (m_registry)
        wl_registry_destroy(m_registry);
    if (m_display)
        wl_display_disconnect(m_display);
}

const WaylandConnection::Global *WaylandConnection::global(const char *interface) const
{
    const QLatin1String wanted(interface);
    for (const Global &g : m_globals) {
        if (g.interface == wanted)
            return &g;
    }
    return nullptr;
}

void *WaylandConnection::bind(const wl_interface *interface, quint32 wantedVersion, quint32 *boundVersion)
{
    if (!isOpen())
        return nullptr;
    const Global *g = global(interface->name);
    if (!g)
        return nullptr;
    const quint32 version = std::min(g->version, wantedVersion);
    if (boundVersion)
        *boundVersion = version;
    return wl_registry_bind(m_registry, g->name, interface, version);
}

bool WaylandConnection::roundtrip()
{
    if (!isOpen())
        return false;
    if (wl_display_roundtrip(m_display) < 0) {
        markBroken();
        return false;
    }
    return true;
}

void WaylandConnection::flush()
{
    if (isOpen() && wl_display_flush(m_display) < 0 && errno != EAGAIN)
        markBroken();
}

void WaylandConnection::readEvents()
{
    if (!isOpen())
        return;
    // Events another call already queued are handled before reading more.
    while (wl_display_prepare_read(m_display) != 0) {
        if (wl_display_dispatch_pending(m_display) < 0) {
            markBroken();
            return;
        }
    }
    if (wl_display_read_events(m_display) < 0 || wl_display_dispatch_pending(m_display) < 0) {
        markBroken();
        return;
    }
    flush();
}

void WaylandConnection::markBroken()
{
    if (m_broken)
        return;
    m_broken = true;
    const int error = m_display ? wl_display_get_error(m_display) : 0;
    m_failure = QStringLiteral("The connection to the Wayland compositor was lost (%1).")
                    .arg(QString::fromLocal8Bit(std::strerror(error ? error : EPIPE)));
    if (m_notifier)
        m_notifier->setEnabled(false);
    Q_EMIT broken(m_failure);
}

} // namespace dictora::wayland
