#include "platform/wayland/WaylandClipboard.h"

#include "dictora-wlr-data-control-client-protocol.h"

#include <QPointer>
#include <QSocketNotifier>

#include <wayland-client.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace dictora::wayland {

namespace {

// What text-accepting clients ask for, GTK's, Qt's and X11's names alike.
const char *const kTextTypes[] = {"text/plain;charset=utf-8", "text/plain", "UTF8_STRING", "STRING", "TEXT"};

// Writes one reply into the reader's pipe and closes it; deletes itself.
class PipeWriter : public QObject {
public:
    PipeWriter(int fd, QByteArray bytes, QObject *parent)
        : QObject(parent), m_fd(fd), m_bytes(std::move(bytes))
    {
        ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
        if (writeSome())
            return;
        m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Write, this);
        connect(m_notifier, &QSocketNotifier::activated, this, [this] {
            if (writeSome())
                m_notifier->setEnabled(false);
        });
    }
    ~PipeWriter() override { ::close(m_fd); }

private:
    // True once finished, well or not; then the writer goes.
    bool writeSome()
    {
        while (m_written < m_bytes.size()) {
            const ssize_t n = ::write(m_fd, m_bytes.constData() + m_written, size_t(m_bytes.size() - m_written));
            if (n > 0) {
                m_written += n;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN)
                return false;
            break; // the reader went away
        }
        deleteLater();
        return true;
    }

    int m_fd;
    QByteArray m_bytes;
    qsizetype m_written = 0;
    QSocketNotifier *m_notifier = nullptr;
};

} // namespace

struct DataControlEvents {
    static void send(void *data, zwlr_data_control_source_v1 *source, const char *mimeType, int32_t fd)
    {
        static_cast<WaylandClipboard *>(data)->serve(source, mimeType, fd);
    }
    static void cancelled(void *data, zwlr_data_control_source_v1 *source)
    {
        static_cast<WaylandClipboard *>(data)->dropSource(source);
    }
    static void dataOffer(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer)
    {
        static const zwlr_data_control_offer_v1_listener listener{[](void *, zwlr_data_control_offer_v1 *,
                                                                     const char *) {}};
        zwlr_data_control_offer_v1_add_listener(offer, &listener, nullptr);
        static_cast<WaylandClipboard *>(data)->m_offers.insert(offer);
    }
    // We never read other clients' selections: their offers go at once.
    static void selection(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *)
    {
        auto *clipboard = static_cast<WaylandClipboard *>(data);
        for (zwlr_data_control_offer_v1 *offer : clipboard->m_offers)
            zwlr_data_control_offer_v1_destroy(offer);
        clipboard->m_offers.clear();
    }
    static void finished(void *data, zwlr_data_control_device_v1 *device)
    {
        auto *clipboard = static_cast<WaylandClipboard *>(data);
        zwlr_data_control_device_v1_destroy(device);
        clipboard->m_device = nullptr;
        clipboard->m_failure = QStringLiteral("The compositor withdrew the clipboard from Dictora.");
    }
};

namespace {
const zwlr_data_control_source_v1_listener sourceListener{DataControlEvents::send, DataControlEvents::cancelled};
const zwlr_data_control_device_v1_listener deviceListener{DataControlEvents::dataOffer, DataControlEvents::selection,
                                                         DataControlEvents::finished, DataControlEvents::selection};
} // namespace

WaylandClipboard::WaylandClipboard(QObject *parent)
    : Clipboard(parent), m_connection(std::make_unique<WaylandConnection>())
{
    if (!m_connection->isOpen()) {
        m_failure = m_connection->failureReason();
        return;
    }
    m_manager = static_cast<zwlr_data_control_manager_v1 *>(
        m_connection->bind(&zwlr_data_control_manager_v1_interface, 2, &m_deviceVersion));
    m_seat = static_cast<wl_seat *>(m_connection->bind(&wl_seat_interface, 1));
    if (!m_manager || !m_seat) {
        m_failure = !m_manager ? QStringLiteral("The compositor does not offer clipboard control "
                                                "(zwlr_data_control_manager_v1).")
                               : QStringLiteral("The compositor offers no seat to own a clipboard on.");
        return;
    }
    m_device = zwlr_data_control_manager_v1_get_data_device(m_manager, m_seat);
    zwlr_data_control_device_v1_add_listener(m_device, &deviceListener, this);
    m_connection->flush();
}

WaylandClipboard::~WaylandClipboard()
{
    for (zwlr_data_control_offer_v1 *offer : m_offers)
        zwlr_data_control_offer_v1_destroy(offer);
    if (m_clipboardSource)
        zwlr_data_control_source_v1_destroy(m_clipboardSource);
    if (m_primarySource)
        zwlr_data_control_source_v1_destroy(m_primarySource);
    if (m_device)
        zwlr_data_control_device_v1_destroy(m_device);
    if (m_manager)
        zwlr_data_control_manager_v1_destroy(m_manager);
    if (m_seat)
        wl_seat_destroy(m_seat);
    m_connection->flush();
}

bool WaylandClipboard::setText(const QString &text, bool alsoPrimary)
{
    if (!m_device || !m_connection->isOpen())
        return false;
    m_text = text.toUtf8();
    const auto offerText = [this] {
        zwlr_data_control_source_v1 *source = zwlr_data_control_manager_v1_create_data_source(m_manager);
        zwlr_data_control_source_v1_add_listener(source, &sourceListener, this);
        for (const char *type : kTextTypes)
            zwlr_data_control_source_v1_offer(source, type);
        return source;
    };
    // The old sources are cancelled by the compositor once replaced.
    m_clipboardSource = offerText();
    zwlr_data_control_device_v1_set_selection(m_device, m_clipboardSource);
    if (alsoPrimary && m_deviceVersion >= 2) {
        m_primarySource = offerText();
        zwlr_data_control_device_v1_set_primary_selection(m_device, m_primarySource);
    }
    m_connection->flush();
    return m_connection->isOpen();
}

void WaylandClipboard::serve(zwlr_data_control_source_v1 *source, const char *, int fd)
{
    new PipeWriter(fd, m_text, this);
    const QString selection = source == m_primarySource ? QStringLiteral("primary") : QStringLiteral("clipboard");
    // Told after the reply is under way, so listeners never delay the reader.
    QMetaObject::invokeMethod(this, [this, selection] { Q_EMIT textRead(selection); }, Qt::QueuedConnection);
}

void WaylandClipboard::dropSource(zwlr_data_control_source_v1 *source)
{
    if (source == m_clipboardSource)
        m_clipboardSource = nullptr;
    if (source == m_primarySource)
        m_primarySource = nullptr;
    zwlr_data_control_source_v1_destroy(source);
}

} // namespace dictora::wayland
