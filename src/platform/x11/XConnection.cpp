#include "platform/x11/XConnection.h"

#include <QProcessEnvironment>

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <memory>
#include <mutex>
#include <unordered_map>

namespace dictora::x11 {

namespace {

// X errors have one owner: one handler, installed once for the process and
// never swapped, that hands each error to the innermost trap on the
// connection it came from. Traps register by connection, not by thread, so a
// trap on one thread can neither swallow nor miss another connection's error.
// Each connection is used by one thread at a time (its owner's rule), so its
// errors arrive on the thread whose trap is waiting for them.
std::mutex g_trapsLock;
std::unordered_map<Display *, XErrorTrap *> g_innermostTrap;
XErrorHandler g_previousHandler = nullptr;
std::once_flag g_handlerInstalled;

// Whether a request made so far may still answer with an error. Once the
// server has answered the latest request (a reply, say), Xlib has already
// handed every earlier error to the handler, so a round trip adds nothing.
bool awaitingAnswers(Display *display)
{
    return LastKnownRequestProcessed(display) != NextRequest(display) - 1;
}

} // namespace

int trapHandler(_XDisplay *display, void *event)
{
    auto *error = static_cast<XErrorEvent *>(event);
    {
        std::lock_guard lock(g_trapsLock);
        const auto it = g_innermostTrap.find(display);
        if (it != g_innermostTrap.end()) {
            if (it->second->m_errorCode == 0)
                it->second->m_errorCode = error->error_code;
            return 0;
        }
    }
    // A connection nobody traps: whoever was in charge before us decides.
    return g_previousHandler ? g_previousHandler(display, error) : 0;
}

namespace {
int xlibTrapHandler(Display *display, XErrorEvent *event)
{
    return trapHandler(display, event);
}
} // namespace

XErrorTrap::XErrorTrap(_XDisplay *display)
    : m_display(display)
{
    std::call_once(g_handlerInstalled, [] { g_previousHandler = XSetErrorHandler(xlibTrapHandler); });
    if (!m_display)
        return;
    std::lock_guard lock(g_trapsLock);
    XErrorTrap *&innermost = g_innermostTrap[m_display];
    m_outer = innermost;
    innermost = this;
}

XErrorTrap::~XErrorTrap()
{
    if (!m_display)
        return;
    if (awaitingAnswers(m_display))
        XSync(m_display, False); // errors of this scope must not outlive it
    std::lock_guard lock(g_trapsLock);
    if (m_outer)
        g_innermostTrap[m_display] = m_outer;
    else
        g_innermostTrap.erase(m_display);
}

int XErrorTrap::sync()
{
    if (m_display && awaitingAnswers(m_display))
        XSync(m_display, False);
    return m_errorCode;
}

XConnection::XConnection()
{
    m_displayName = QProcessEnvironment::systemEnvironment().value(QStringLiteral("DISPLAY"));
    if (m_displayName.isEmpty())
        return;
    m_display = XOpenDisplay(nullptr);
}

XConnection::~XConnection()
{
    if (m_display)
        XCloseDisplay(m_display);
}

unsigned long XConnection::rootWindow() const
{
    return m_display ? DefaultRootWindow(m_display) : 0;
}

int XConnection::fileDescriptor() const
{
    return m_display ? ConnectionNumber(m_display) : -1;
}

unsigned long XConnection::atom(const char *name) const
{
    return m_display ? XInternAtom(m_display, name, False) : 0;
}

namespace {

// One property read, its data freed however the caller leaves.
struct PropertyReply {
    bool ok = false;
    Atom type = 0;
    int format = 0;
    unsigned long count = 0;
    std::unique_ptr<unsigned char, int (*)(void *)> data{nullptr, XFree};
};

PropertyReply readProperty(Display *display, unsigned long window, unsigned long property, long length,
                           unsigned long type)
{
    PropertyReply reply;
    XErrorTrap trap(display);
    unsigned long remaining = 0;
    unsigned char *data = nullptr;
    const int status = XGetWindowProperty(display, window, property, 0, length, False, type, &reply.type,
                                          &reply.format, &reply.count, &remaining, &data);
    reply.data.reset(data);
    reply.ok = status == Success && trap.errorCode() == 0 && data;
    return reply;
}

} // namespace

std::optional<std::vector<unsigned long>> XConnection::property32(unsigned long window,
                                                                  unsigned long property,
                                                                  unsigned long type) const
{
    if (!m_display || window == 0)
        return std::nullopt;
    const PropertyReply reply = readProperty(m_display, window, property, 1024, type);
    if (!reply.ok || reply.type != type || reply.format != 32)
        return std::nullopt;
    // Xlib hands format-32 data back as longs, whatever the platform's width.
    const auto *items = reinterpret_cast<const unsigned long *>(reply.data.get());
    return std::vector<unsigned long>(items, items + reply.count);
}

std::optional<QByteArray> XConnection::property8(unsigned long window, unsigned long property) const
{
    if (!m_display || window == 0)
        return std::nullopt;
    const PropertyReply reply = readProperty(m_display, window, property, 4096, AnyPropertyType);
    if (!reply.ok || reply.format != 8)
        return std::nullopt;
    return QByteArray(reinterpret_cast<const char *>(reply.data.get()), static_cast<qsizetype>(reply.count));
}

QString XConnection::unavailableReason() const
{
    if (m_displayName.isEmpty())
        return QStringLiteral("No X11 display is available (DISPLAY is not set), so Dictora cannot "
                              "use a global shortcut or paste into other applications.");
    return QStringLiteral("Dictora could not connect to the X11 display %1.").arg(m_displayName);
}

} // namespace dictora::x11
