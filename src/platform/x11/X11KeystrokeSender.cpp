#include "platform/x11/X11KeystrokeSender.h"

#include "platform/x11/XConnection.h"

#include <algorithm>
#include <iterator>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <vector>

namespace dictora::x11 {

X11KeystrokeSender::X11KeystrokeSender()
    : m_connection(std::make_unique<XConnection>())
{
    if (m_connection->isOpen()) {
        int eventBase = 0, errorBase = 0, major = 0, minor = 0;
        m_hasXTest = XTestQueryExtension(m_connection->display(), &eventBase, &errorBase, &major, &minor);
    }
}

X11KeystrokeSender::~X11KeystrokeSender() = default;

QString X11KeystrokeSender::failureReason() const
{
    if (!m_connection->isOpen())
        return m_connection->unavailableReason();
    if (!m_hasXTest)
        return QStringLiteral("The X server does not offer the XTEST extension, so Dictora cannot "
                              "type the paste keystroke.");
    return {};
}

bool X11KeystrokeSender::anyKeyHeld()
{
    if (!m_connection->isOpen())
        return false;
    Display *display = m_connection->display();
    XErrorTrap trap(display);
    char keys[32] = {};
    XQueryKeymap(display, keys);
    return std::any_of(std::begin(keys), std::end(keys), [](char bits) { return bits != 0; });
}

bool X11KeystrokeSender::send(PasteKeystroke keystroke)
{
    if (!m_connection->isOpen() || !m_hasXTest)
        return false;
    Display *display = m_connection->display();

    // Resolved through the current layout, so Ctrl+V stays "V" on Dvorak or AZERTY.
    std::vector<KeySym> modifiers;
    KeySym key = XK_v;
    switch (keystroke) {
    case PasteKeystroke::controlV:
        modifiers = {XK_Control_L};
        break;
    case PasteKeystroke::controlShiftV:
        modifiers = {XK_Control_L, XK_Shift_L};
        break;
    case PasteKeystroke::shiftInsert:
        modifiers = {XK_Shift_L};
        key = XK_Insert;
        break;
    }
    std::vector<KeyCode> modifierCodes;
    for (KeySym sym : modifiers) {
        const KeyCode code = XKeysymToKeycode(display, sym);
        if (code == 0)
            return false;
        modifierCodes.push_back(code);
    }
    const KeyCode keyCode = XKeysymToKeycode(display, key);
    if (keyCode == 0)
        return false;

    XErrorTrap trap(display);
    for (KeyCode code : modifierCodes)
        XTestFakeKeyEvent(display, code, True, CurrentTime);
    XTestFakeKeyEvent(display, keyCode, True, CurrentTime);
    XTestFakeKeyEvent(display, keyCode, False, CurrentTime);
    for (auto it = modifierCodes.rbegin(); it != modifierCodes.rend(); ++it)
        XTestFakeKeyEvent(display, *it, False, CurrentTime);
    return trap.sync() == 0;
}

} // namespace dictora::x11
