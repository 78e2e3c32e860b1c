#pragma once

#include "platform/Clipboard.h"
#include "platform/wayland/WaylandConnection.h"

#include <QByteArray>

#include <memory>
#include <set>

struct wl_seat;
struct zwlr_data_control_manager_v1;
struct zwlr_data_control_device_v1;
struct zwlr_data_control_source_v1;
struct zwlr_data_control_offer_v1;

namespace dictora::wayland {

// The clipboard served by this process itself through the data control
// protocol, which lets a client without a focused surface own the selection.
// Each read is a pipe the compositor hands us; it is written from the event
// loop, a little at a time when the reader is slow, so nothing blocks.
class WaylandClipboard final : public Clipboard {
    Q_OBJECT
public:
    explicit WaylandClipboard(QObject *parent = nullptr);
    ~WaylandClipboard() override;

    bool isUsable() const { return m_device != nullptr; }
    QString failureReason() const { return m_failure; }

    bool isWatching() const override { return isUsable(); }
    bool setText(const QString &text, bool alsoPrimary) override;

private:
    friend struct DataControlEvents;
    void serve(zwlr_data_control_source_v1 *source, const char *mimeType, int fd);
    void dropSource(zwlr_data_control_source_v1 *source);

    std::unique_ptr<WaylandConnection> m_connection;
    wl_seat *m_seat = nullptr;
    zwlr_data_control_manager_v1 *m_manager = nullptr;
    zwlr_data_control_device_v1 *m_device = nullptr;
    quint32 m_deviceVersion = 0;
    zwlr_data_control_source_v1 *m_clipboardSource = nullptr;
    zwlr_data_control_source_v1 *m_primarySource = nullptr;
    std::set<zwlr_data_control_offer_v1 *> m_offers;
    QByteArray m_text;
    QString m_failure;
};

} // namespace dictora::wayland
