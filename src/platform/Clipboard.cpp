#include "platform/Clipboard.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QMimeData>
#include <QtConcurrent/QtConcurrentRun>

namespace dictora {

QtClipboard::QtClipboard(std::unique_ptr<ClipboardReadWatcher> reads, ContentsReader readElsewhere, QObject *parent)
    : Clipboard(parent), m_reads(std::move(reads)), m_readElsewhere(std::move(readElsewhere))
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

void QtClipboard::readContents(ContentsRead done)
{
    ClipboardContents contents;
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance())) {
        done(contents);
        return;
    }
    if (m_readElsewhere && QGuiApplication::platformName() == QLatin1String("xcb")) {
        QtConcurrent::run(m_readElsewhere).then(this, [done = std::move(done)](const ClipboardContents &read) {
            done(read);
        });
        return;
    }
    // Another owner's formats come over the display connection, one blocking request each.
    if (const QMimeData *data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard)) {
        for (const QString &format : data->formats()) {
            if (ClipboardContents::keeps(format))
                contents.formats.append({format, data->data(format)});
        }
    }
    done(contents);
}

bool QtClipboard::restore(const ClipboardContents &contents)
{
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return false;
    auto *data = new QMimeData;
    for (const auto &[format, bytes] : contents.formats)
        data->setData(format, bytes);
    QGuiApplication::clipboard()->setMimeData(data, QClipboard::Clipboard);
    return true;
}

} // namespace dictora
