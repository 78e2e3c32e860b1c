#pragma once

#include "platform/ClipboardReadWatcher.h"

#include <QByteArray>
#include <QList>
#include <QPair>

#include <chrono>
#include <functional>

#include <memory>

namespace dictora {

// What the clipboard held, every format with its bytes, to be put back.
struct ClipboardContents {
    QList<QPair<QString, QByteArray>> formats;
    bool isEmpty() const { return formats.isEmpty(); }
    // Selection plumbing (TARGETS, TIMESTAMP, X11's text aliases) and Qt's own aliases are no content.
    static bool keeps(const QString &format)
    {
        return format.contains(QLatin1Char('/')) && !format.startsWith(QLatin1String("application/x-qt-"));
    }
};

// Where the paste takes its text from, and the watch on who reads it. Most
// sessions serve it through the toolkit's clipboard; some compositors need
// this process to offer it over a protocol of their own.
class Clipboard : public ClipboardReadWatcher {
    Q_OBJECT
public:
    using ClipboardReadWatcher::ClipboardReadWatcher;

    // Replaces what the clipboard holds with text, and the primary selection
    // too when asked (terminals that paste it on Shift+Insert). False when
    // nothing could be offered.
    virtual bool setText(const QString &text, bool alsoPrimary) = 0;
    // Where the backend can: what the clipboard holds now, handed to `done`
    // (at once, or later from the event loop, always once), and putting such
    // contents back. Empty, and false, where it cannot.
    using ContentsRead = std::function<void(ClipboardContents contents)>;
    virtual void readContents(ContentsRead done) { done({}); }
    virtual bool restore(const ClipboardContents &) { return false; }
    // Whether the compositor must take the text over from us before a
    // native window can paste it (offerSeen() says when it has).
    virtual bool handsOver() const { return false; }
    // How long, once taken over, before the compositor's own clients have
    // heard of the new selection: a paste key sent sooner pastes the old one.
    virtual std::chrono::milliseconds announceDelay() const { return {}; }
};

// The toolkit's clipboard (QClipboard), with reads reported by `reads`
// where the session lets them be seen.
class QtClipboard final : public Clipboard {
    Q_OBJECT
public:
    // `readElsewhere`, where given, reads another owner's formats off the GUI
    // thread (blocking, over a connection of its own) while Qt's windows run on X11.
    using ContentsReader = std::function<ClipboardContents()>;
    explicit QtClipboard(std::unique_ptr<ClipboardReadWatcher> reads, ContentsReader readElsewhere = {},
        QObject *parent = nullptr);
    ~QtClipboard() override;

    bool isWatching() const override { return m_reads && m_reads->isWatching(); }
    bool setText(const QString &text, bool alsoPrimary) override;
    void readContents(ContentsRead done) override;
    bool restore(const ClipboardContents &contents) override;
    bool handsOver() const override;
    // Mutter announces a selection only after reading its targets from us;
    // foot on GNOME got the key 50-80 ms ahead of the announcement.
    std::chrono::milliseconds announceDelay() const override { return std::chrono::milliseconds(handsOver() ? 150 : 0); }

private:
    std::unique_ptr<ClipboardReadWatcher> m_reads;
    ContentsReader m_readElsewhere;
};

} // namespace dictora
