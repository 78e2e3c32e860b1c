#pragma once

#include "platform/Clipboard.h"
#include "platform/wayland/WaylandConnection.h"

#include <QByteArray>
#include <QHash>
#include <QStringList>

#include <map>
#include <memory>

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
    // Another client's formats come through pipes read from the event loop,
    // within half a second; what has not arrived by then is left out.
    void readContents(ContentsRead done) override;
    bool restore(const ClipboardContents &contents) override;

private:
    friend struct DataControlEvents;
    // What one of our sources serves: bytes by MIME type.
    struct Served {
        QHash<QByteArray, QByteArray> formats;
        bool transcript = false;
    };
    zwlr_data_control_source_v1 *offerSource(Served served);
    void serve(zwlr_data_control_source_v1 *source, const char *mimeType, int fd);
    void dropSource(zwlr_data_control_source_v1 *source);
    void dropOffersBut(zwlr_data_control_offer_v1 *keep);

    std::unique_ptr<WaylandConnection> m_connection;
    wl_seat *m_seat = nullptr;
    zwlr_data_control_manager_v1 *m_manager = nullptr;
    zwlr_data_control_device_v1 *m_device = nullptr;
    quint32 m_deviceVersion = 0;
    zwlr_data_control_source_v1 *m_clipboardSource = nullptr;
    zwlr_data_control_source_v1 *m_primarySource = nullptr;
    std::map<zwlr_data_control_offer_v1 *, QStringList> m_offers; // with the types each offers
    zwlr_data_control_offer_v1 *m_selection = nullptr;           // the clipboard's, another client's
    std::map<zwlr_data_control_source_v1 *, Served> m_served;
    QString m_failure;
};

} // namespace dictora::wayland
