#include "platform/x11/X11ClipboardReadWatcher.h"

#include "platform/x11/XConnection.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QMetaObject>

#include <xcb/xcb.h>

namespace dictora::x11 {

X11ClipboardReadWatcher::X11ClipboardReadWatcher(QObject *parent)
    : ClipboardReadWatcher(parent)
{
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance())
        || QGuiApplication::platformName() != QLatin1String("xcb"))
        return;
    // Atoms are server-wide, so our own connection names them for Qt's too.
    XConnection connection;
    if (!connection.isOpen())
        return;
    m_clipboard = static_cast<quint32>(connection.atom("CLIPBOARD"));
    m_targets = static_cast<quint32>(connection.atom("TARGETS"));
    m_timestamp = static_cast<quint32>(connection.atom("TIMESTAMP"));
    QCoreApplication::instance()->installNativeEventFilter(this);
    m_watching = true;
}

X11ClipboardReadWatcher::~X11ClipboardReadWatcher()
{
    if (m_watching && QCoreApplication::instance())
        QCoreApplication::instance()->removeNativeEventFilter(this);
}

bool X11ClipboardReadWatcher::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (eventType != "xcb_generic_event_t")
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) != XCB_SELECTION_REQUEST)
        return false;
    const auto *request = static_cast<const xcb_selection_request_event_t *>(message);
    QString selection;
    if (request->selection == m_clipboard)
        selection = QStringLiteral("clipboard");
    else if (request->selection == m_primary)
        selection = QStringLiteral("primary");
    else
        return false;
    // Asking what we offer is not reading it.
    if (request->target == m_targets || request->target == m_timestamp) {
        QMetaObject::invokeMethod(
            this, [this, selection] { Q_EMIT offerSeen(selection); }, Qt::QueuedConnection);
        return false;
    }
    // Told after Qt has answered, so listeners never delay the reader.
    QMetaObject::invokeMethod(
        this, [this, selection] { Q_EMIT textRead(selection); }, Qt::QueuedConnection);
    return false;
}

} // namespace dictora::x11
