#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

struct wl_display;
struct wl_registry;
struct wl_interface;
struct wl_proxy;
class QSocketNotifier;

namespace dictora::wayland {

// Owns one proxy and destroys it with the protocol's own destructor request
// (or wl_proxy_destroy where the interface has none).
template <typename T, void (*Destroy)(T *)>
struct ProxyDeleter {
    void operator()(T *proxy) const
    {
        if (proxy)
            Destroy(proxy);
    }
};
template <typename T, void (*Destroy)(T *)>
using Proxy = std::unique_ptr<T, ProxyDeleter<T, Destroy>>;

// A private connection to the compositor named by WAYLAND_DISPLAY, with the
// globals it announced at connect time. Events are read from the GUI event
// loop through a socket notifier, so listeners run on the thread that made
// the connection and need no locks.
class WaylandConnection : public QObject {
    Q_OBJECT
public:
    struct Global {
        quint32 name = 0;
        QString interface;
        quint32 version = 0;
    };

    // watch: read events from the event loop (off for one-shot probes).
    explicit WaylandConnection(bool watch = true, QObject *parent = nullptr);
    ~WaylandConnection() override;

    bool isOpen() const { return m_display != nullptr && !m_broken; }
    wl_display *display() const { return m_display; }
    QString failureReason() const { return m_failure; }

    const std::vector<Global> &globals() const { return m_globals; }
    const Global *global(const char *interface) const;
    // Binds the global at min(offered, wanted) version; nullptr when absent.
    void *bind(const wl_interface *interface, quint32 wantedVersion, quint32 *boundVersion = nullptr);

    // Waits for the compositor to handle everything sent so far. Only for
    // set-up: every other step goes through the event loop.
    bool roundtrip();
    // Sends queued requests now instead of when the loop next sleeps.
    void flush();

Q_SIGNALS:
    // The compositor went away or closed the connection with an error.
    void broken(const QString &reason);

private:
    void readEvents();
    void markBroken();

    wl_display *m_display = nullptr;
    wl_registry *m_registry = nullptr;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::vector<Global> m_globals;
    QString m_failure;
    bool m_broken = false;
};

} // namespace dictora::wayland
