#include "platform/wayland/WaylandClipboard.h"

#include "dictora-wlr-data-control-client-protocol.h"

#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>

#include <wayland-client.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <utility>
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

// Reads one format from another client's pipe until it closes; deletes itself.
class PipeReader : public QObject {
public:
    PipeReader(int fd, std::function<void(const QByteArray &bytes)> done, QObject *parent)
        : QObject(parent), m_fd(fd), m_done(std::move(done)), m_notifier(new QSocketNotifier(fd, QSocketNotifier::Read, this))
    {
        ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
        connect(m_notifier, &QSocketNotifier::activated, this, [this] { readSome(); });
    }
    ~PipeReader() override { ::close(m_fd); }

private:
    void readSome()
    {
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n > 0) {
                m_bytes.append(buffer, n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN)
                return;
            break; // the end, or the writer failed: what came is what there is
        }
        m_notifier->setEnabled(false);
        m_done(m_bytes);
        deleteLater();
    }

    int m_fd;
    std::function<void(const QByteArray &)> m_done;
    QSocketNotifier *m_notifier;
    QByteArray m_bytes;
};

struct DataControlEvents {
    static void send(void *data, zwlr_data_control_source_v1 *source, const char *mimeType, int32_t fd)
    {
        static_cast<WaylandClipboard *>(data)->serve(source, mimeType, fd);
    }
    static void cancelled(void *data, zwlr_data_control_source_v1 *source)
    {
        static_cast<WaylandClipboard *>(data)->dropSource(source);
    }
    static void offered(void *data, zwlr_data_control_offer_v1 *offer, const char *mimeType)
    {
        auto *clipboard = static_cast<WaylandClipboard *>(data);
        if (const auto known = clipboard->m_offers.find(offer); known != clipboard->m_offers.end())
            known->second << QString::fromUtf8(mimeType);
    }
    static void dataOffer(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer)
    {
        static const zwlr_data_control_offer_v1_listener listener{DataControlEvents::offered};
        zwlr_data_control_offer_v1_add_listener(offer, &listener, data);
        static_cast<WaylandClipboard *>(data)->m_offers.emplace(offer, QStringList());
    }
    // The clipboard's offer is kept for "keep my clipboard"; the primary
    // selection's is never read.
    static void selection(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer)
    {
        auto *clipboard = static_cast<WaylandClipboard *>(data);
        clipboard->m_selection = offer;
        clipboard->dropOffersBut(offer);
    }
    static void primarySelection(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *)
    {
        auto *clipboard = static_cast<WaylandClipboard *>(data);
        clipboard->dropOffersBut(clipboard->m_selection);
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
                                                         DataControlEvents::finished, DataControlEvents::primarySelection};
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
    for (const auto &[offer, types] : m_offers)
        zwlr_data_control_offer_v1_destroy(offer);
    for (const auto &[source, served] : m_served)
        zwlr_data_control_source_v1_destroy(source);
    if (m_device)
        zwlr_data_control_device_v1_destroy(m_device);
    if (m_manager)
        zwlr_data_control_manager_v1_destroy(m_manager);
    if (m_seat)
        wl_seat_destroy(m_seat);
    m_connection->flush();
}

zwlr_data_control_source_v1 *WaylandClipboard::offerSource(Served served)
{
    zwlr_data_control_source_v1 *source = zwlr_data_control_manager_v1_create_data_source(m_manager);
    zwlr_data_control_source_v1_add_listener(source, &sourceListener, this);
    for (auto type = served.formats.cbegin(); type != served.formats.cend(); ++type)
        zwlr_data_control_source_v1_offer(source, type.key().constData());
    m_served.emplace(source, std::move(served));
    return source;
}

bool WaylandClipboard::setText(const QString &text, bool alsoPrimary)
{
    if (!m_device || !m_connection->isOpen())
        return false;
    Served served{{}, true};
    for (const char *type : kTextTypes)
        served.formats.insert(type, text.toUtf8());
    // The old sources are cancelled by the compositor once replaced.
    m_clipboardSource = offerSource(served);
    zwlr_data_control_device_v1_set_selection(m_device, m_clipboardSource);
    if (alsoPrimary && m_deviceVersion >= 2) {
        m_primarySource = offerSource(served);
        zwlr_data_control_device_v1_set_primary_selection(m_device, m_primarySource);
    }
    m_connection->flush();
    return m_connection->isOpen();
}

void WaylandClipboard::readContents(ContentsRead done)
{
    // Ours (the last transcript, or what we put back) needs no pipe.
    if (m_clipboardSource) {
        ClipboardContents contents;
        const Served &served = m_served.at(m_clipboardSource);
        for (auto type = served.formats.cbegin(); type != served.formats.cend(); ++type) {
            if (ClipboardContents::keeps(QString::fromUtf8(type.key())))
                contents.formats.append({QString::fromUtf8(type.key()), type.value()});
        }
        done(contents);
        return;
    }
    const auto offer = m_offers.find(m_selection);
    if (!m_device || offer == m_offers.end()) {
        done({});
        return;
    }
    struct Reading {
        ClipboardContents contents;
        int pending = 0;
        ContentsRead done;
        bool answered = false;
        void answer()
        {
            if (!std::exchange(answered, true))
                done(contents);
        }
    };
    auto reading = std::make_shared<Reading>();
    reading->done = std::move(done);
    for (const QString &type : offer->second) {
        int fds[2];
        if (!ClipboardContents::keeps(type) || ::pipe2(fds, O_CLOEXEC) != 0)
            continue;
        zwlr_data_control_offer_v1_receive(offer->first, type.toUtf8().constData(), fds[1]);
        ::close(fds[1]); // the compositor passed its copy on to the owner
        ++reading->pending;
        new PipeReader(fds[0], [reading, type](const QByteArray &bytes) {
            reading->contents.formats.append({type, bytes});
            if (--reading->pending == 0)
                reading->answer();
        }, this);
    }
    m_connection->flush();
    if (reading->pending == 0) {
        reading->answer();
        return;
    }
    // An owner that never answers must not hold the paste up.
    QTimer::singleShot(500, this, [reading] { reading->answer(); });
}

bool WaylandClipboard::restore(const ClipboardContents &contents)
{
    if (!m_device || !m_connection->isOpen())
        return false;
    if (contents.isEmpty()) {
        // An empty clipboard stays empty rather than keeping the transcript.
        zwlr_data_control_device_v1_set_selection(m_device, nullptr);
        m_connection->flush();
        return m_connection->isOpen();
    }
    Served served;
    for (const auto &[format, bytes] : contents.formats)
        served.formats.insert(format.toUtf8(), bytes);
    m_clipboardSource = offerSource(std::move(served));
    zwlr_data_control_device_v1_set_selection(m_device, m_clipboardSource);
    m_connection->flush();
    return m_connection->isOpen();
}

void WaylandClipboard::serve(zwlr_data_control_source_v1 *source, const char *mimeType, int fd)
{
    const auto served = m_served.find(source);
    if (served == m_served.end()) {
        ::close(fd);
        return;
    }
    new PipeWriter(fd, served->second.formats.value(QByteArray(mimeType)), this);
    if (!served->second.transcript)
        return;
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
    m_served.erase(source);
    zwlr_data_control_source_v1_destroy(source);
}

void WaylandClipboard::dropOffersBut(zwlr_data_control_offer_v1 *keep)
{
    for (auto offer = m_offers.begin(); offer != m_offers.end();) {
        if (offer->first == keep) {
            ++offer;
            continue;
        }
        zwlr_data_control_offer_v1_destroy(offer->first);
        offer = m_offers.erase(offer);
    }
}

} // namespace dictora::wayland
