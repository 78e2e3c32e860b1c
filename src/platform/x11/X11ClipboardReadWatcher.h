#pragma once

#include "platform/ClipboardReadWatcher.h"

#include <QAbstractNativeEventFilter>

namespace dictora::x11 {

// Qt serves the clipboard from its own xcb connection; a SelectionRequest
// arriving there for CLIPBOARD or PRIMARY with a data target is another
// program reading what we offered. The event is only observed, Qt still
// answers it.
class X11ClipboardReadWatcher final : public ClipboardReadWatcher, public QAbstractNativeEventFilter {
    Q_OBJECT
public:
    explicit X11ClipboardReadWatcher(QObject *parent = nullptr);
    ~X11ClipboardReadWatcher() override;

    bool isWatching() const override { return m_watching; }
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

private:
    bool m_watching = false;
    quint32 m_clipboard = 0;
    quint32 m_primary = 1; // predefined atom PRIMARY
    quint32 m_targets = 0;
    quint32 m_timestamp = 0;
};

} // namespace dictora::x11
