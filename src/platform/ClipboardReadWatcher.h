#pragma once

#include <QObject>
#include <QString>

namespace dictora {

// Tells when another application actually reads the text this process put
// on the clipboard or the primary selection, so a paste that landed can be
// told from one that did not.
class ClipboardReadWatcher : public QObject {
    Q_OBJECT
public:
    explicit ClipboardReadWatcher(QObject *parent = nullptr);
    ~ClipboardReadWatcher() override;

    // False where reads cannot be observed (no clipboard of our own to watch).
    virtual bool isWatching() const = 0;

Q_SIGNALS:
    // selection: "clipboard" or "primary".
    void textRead(const QString &selection);
    // Someone asked what we offer: in a Wayland session served through
    // XWayland, the compositor taking the selection over.
    void offerSeen(const QString &selection);
};

} // namespace dictora
