#include "platform/x11/X11ClipboardContents.h"

#include "platform/x11/XConnection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <climits>
#include <functional>
#include <optional>
#include <poll.h>

namespace dictora::x11 {

namespace {

using Clock = std::chrono::steady_clock;

// The next event `wanted` accepts, others dropped; false once the deadline passes.
bool waitFor(Display *display, Clock::time_point deadline, const std::function<bool(const XEvent &)> &wanted, XEvent *event)
{
    for (;;) {
        while (XPending(display) > 0) {
            XNextEvent(display, event);
            if (wanted(*event))
                return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd fd{ConnectionNumber(display), POLLIN, 0};
        ::poll(&fd, 1, int(left));
    }
}

// A window's property, deleted as it is read (which also tells an INCR owner to go on).
struct Property {
    Atom type = None;
    QByteArray bytes;
    std::vector<Atom> atoms;
};

std::optional<Property> takeProperty(Display *display, Window window, Atom property)
{
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char *data = nullptr;
    if (XGetWindowProperty(display, window, property, 0, LONG_MAX / 4, True, AnyPropertyType, &type, &format, &items,
            &after, &data) != Success)
        return std::nullopt;
    Property read;
    read.type = type;
    if (data && format == 32) {
        const auto *longs = reinterpret_cast<const unsigned long *>(data); // Xlib hands format 32 as longs
        read.atoms.assign(longs, longs + items);
    } else if (data) {
        read.bytes = QByteArray(reinterpret_cast<const char *>(data), qsizetype(items * unsigned(format / 8)));
    }
    if (data)
        XFree(data);
    return read;
}

} // namespace

ClipboardContents readClipboardContents(std::chrono::milliseconds budget)
{
    ClipboardContents contents;
    const XConnection connection;
    if (!connection.isOpen())
        return contents;
    Display *display = connection.display();
    const Atom clipboard = connection.atom("CLIPBOARD");
    if (XGetSelectionOwner(display, clipboard) == None)
        return contents;
    XErrorTrap trap(display);
    const Window window = XCreateSimpleWindow(display, connection.rootWindow(), 0, 0, 1, 1, 0, 0, 0);
    XSelectInput(display, window, PropertyChangeMask);
    const Atom property = connection.atom("DICTORA_CLIPBOARD");
    const Atom incr = connection.atom("INCR");
    const Clock::time_point deadline = Clock::now() + budget;

    const auto convert = [&](Atom target) -> std::optional<Property> {
        XConvertSelection(display, clipboard, target, property, window, CurrentTime);
        XFlush(display);
        XEvent event;
        if (!waitFor(display, deadline, [window](const XEvent &e) {
                return e.type == SelectionNotify && e.xselection.requestor == window;
            }, &event) || event.xselection.property == None)
            return std::nullopt;
        std::optional<Property> read = takeProperty(display, window, property);
        if (!read || read->type != incr)
            return read;
        // Sent in pieces: each new value is the next one, an empty one the end.
        Property whole;
        for (;;) {
            if (!waitFor(display, deadline, [window, property](const XEvent &e) {
                    return e.type == PropertyNotify && e.xproperty.window == window && e.xproperty.atom == property
                        && e.xproperty.state == PropertyNewValue;
                }, &event))
                return std::nullopt;
            const std::optional<Property> piece = takeProperty(display, window, property);
            if (!piece)
                return std::nullopt;
            if (piece->bytes.isEmpty())
                return whole;
            whole.type = piece->type;
            whole.bytes += piece->bytes;
        }
    };

    const std::optional<Property> targets = convert(connection.atom("TARGETS"));
    if (targets) {
        for (const Atom target : targets->atoms) {
            char *name = XGetAtomName(display, target);
            const QString format = name ? QString::fromUtf8(name) : QString();
            if (name)
                XFree(name);
            if (!ClipboardContents::keeps(format))
                continue;
            if (const std::optional<Property> data = convert(target))
                contents.formats.append({format, data->bytes});
        }
    }
    XDestroyWindow(display, window);
    trap.sync();
    return contents;
}

} // namespace dictora::x11
