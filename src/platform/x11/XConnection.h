#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

struct _XDisplay;

namespace dictora::x11 {

// One private Xlib connection, closed when it goes. One thread at a time uses
// it (its owner serialises), so its errors reach that thread's traps. Xlib types stay out of
// this header so that Qt code including it never meets Xlib's macros.
class XConnection {
public:
    XConnection(); // connects to $DISPLAY; isOpen() tells whether it worked
    ~XConnection();
    XConnection(const XConnection &) = delete;
    XConnection &operator=(const XConnection &) = delete;

    bool isOpen() const { return m_display != nullptr; }
    _XDisplay *display() const { return m_display; }
    unsigned long rootWindow() const;
    int fileDescriptor() const;

    unsigned long atom(const char *name) const;

    // Format-32 property items (windows, cardinals, atoms), or nothing when the
    // property is missing, of another type, or the window is gone.
    std::optional<std::vector<unsigned long>> property32(unsigned long window, unsigned long property,
                                                         unsigned long type) const;
    // Format-8 property bytes of any type.
    std::optional<QByteArray> property8(unsigned long window, unsigned long property) const;

    // "No X display is available …" style text for when isOpen() is false.
    QString unavailableReason() const;

private:
    _XDisplay *m_display = nullptr;
    QString m_displayName;
};

// Catches X protocol errors on one connection while it lives instead of
// letting Xlib's default handler end the process. Nests on one connection;
// traps on other connections, on any thread, do not see its errors.
class XErrorTrap {
public:
    explicit XErrorTrap(_XDisplay *display);
    ~XErrorTrap();
    XErrorTrap(const XErrorTrap &) = delete;
    XErrorTrap &operator=(const XErrorTrap &) = delete;

    // Round-trips to the server, unless it has answered the latest request
    // already, so that every error of the requests made so far has arrived;
    // returns the first error code seen (0 = none).
    int sync();
    int errorCode() const { return m_errorCode; }

private:
    friend int trapHandler(_XDisplay *, void *);
    _XDisplay *m_display;
    int m_errorCode = 0;
    XErrorTrap *m_outer = nullptr;
};

} // namespace dictora::x11
