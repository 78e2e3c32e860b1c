#include "platform/Clipboard.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QGuiApplication>

namespace dictora {

QtClipboard::QtClipboard(std::unique_ptr<ClipboardReadWatcher> reads, QObject *parent)
    : Clipboard(parent), m_reads(std::move(reads))
{
    if (m_reads) {
        connect(m_reads.get(), &ClipboardReadWatcher::textRead, this, &ClipboardReadWatcher::textRead);
        connect(m_reads.get(), &ClipboardReadWatcher::offerSeen, this, &ClipboardReadWatcher::offerSeen);
    }
}

// Served through XWayland in a Wayland session: the compositor asks us for
// the offer before its own clients can see it.
bool QtClipboard::handsOver() const
{
    return isWatching() && !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

QtClipboard::~QtClipboard() = default;

bool QtClipboard::setText(const QString &text, bool alsoPrimary)
{
    // Without a GUI application object there is no clipboard to serve from.
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return false;
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear(QClipboard::Clipboard);
    clipboard->setText(text, QClipboard::Clipboard);
    if (alsoPrimary && clipboard->supportsSelection())
        clipboard->setText(text, QClipboard::Selection);
    return true;
}

} // namespace dictora
