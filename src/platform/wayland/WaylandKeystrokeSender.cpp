#include "platform/wayland/WaylandKeystrokeSender.h"

#include "dictora-virtual-keyboard-client-protocol.h"

#include <QElapsedTimer>

#include <wayland-client.h>
#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

#include <sys/mman.h>
#include <unistd.h>

#include <vector>

namespace dictora::wayland {

namespace {

// The layout clients see: the compositor hands every client with a keyboard
// focus the keymap of the seat's keyboard.
struct SeatKeymap {
    QByteArray text;
    bool hasKeyboard = false;
};

void onKeymap(void *data, wl_keyboard *, uint32_t format, int32_t fd, uint32_t size)
{
    auto *keymap = static_cast<SeatKeymap *>(data);
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0 && size < 16 * 1024 * 1024) {
        void *mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (mapped != MAP_FAILED) {
            keymap->text = QByteArray(static_cast<const char *>(mapped), qsizetype(size));
            ::munmap(mapped, size);
        }
    }
    ::close(fd);
}
void onEnter(void *, wl_keyboard *, uint32_t, wl_surface *, wl_array *) {}
void onLeave(void *, wl_keyboard *, uint32_t, wl_surface *) {}
void onKey(void *, wl_keyboard *, uint32_t, uint32_t, uint32_t, uint32_t) {}
void onModifiers(void *, wl_keyboard *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {}
void onRepeatInfo(void *, wl_keyboard *, int32_t, int32_t) {}
const wl_keyboard_listener keyboardListener{onKeymap, onEnter, onLeave, onKey, onModifiers, onRepeatInfo};

void onCapabilities(void *data, wl_seat *, uint32_t capabilities)
{
    static_cast<SeatKeymap *>(data)->hasKeyboard = capabilities & WL_SEAT_CAPABILITY_KEYBOARD;
}
void onName(void *, wl_seat *, const char *) {}
const wl_seat_listener seatListener{onCapabilities, onName};

// Time stamps of key events are milliseconds of a monotonic clock.
quint32 now()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return quint32(clock.elapsed());
}

} // namespace

WaylandKeystrokeSender::WaylandKeystrokeSender()
    : m_connection(std::make_unique<WaylandConnection>())
{
    if (!m_connection->isOpen()) {
        m_failure = m_connection->failureReason();
        return;
    }
    if (!setUpKeyboard() && m_failure.isEmpty())
        m_failure = QStringLiteral("The virtual keyboard could not be set up.");
}

WaylandKeystrokeSender::~WaylandKeystrokeSender()
{
    if (m_keyboard)
        zwp_virtual_keyboard_v1_destroy(m_keyboard);
    if (m_manager)
        wl_proxy_destroy(reinterpret_cast<wl_proxy *>(m_manager)); // the interface has no destructor
    if (m_seat)
        wl_seat_destroy(m_seat);
    m_connection->flush();
}

bool WaylandKeystrokeSender::setUpKeyboard()
{
    m_manager = static_cast<zwp_virtual_keyboard_manager_v1 *>(
        m_connection->bind(&zwp_virtual_keyboard_manager_v1_interface, 1));
    if (!m_manager) {
        m_failure = QStringLiteral("The compositor does not offer a virtual keyboard "
                                   "(zwp_virtual_keyboard_manager_v1), so Dictora cannot type the paste "
                                   "keystroke.");
        return false;
    }
    m_seat = static_cast<wl_seat *>(m_connection->bind(&wl_seat_interface, 1));
    if (!m_seat) {
        m_failure = QStringLiteral("The compositor offers no seat to type on.");
        return false;
    }

    SeatKeymap seatKeymap;
    wl_seat_add_listener(m_seat, &seatListener, &seatKeymap);
    m_connection->roundtrip();
    if (seatKeymap.hasKeyboard) {
        wl_keyboard *keyboard = wl_seat_get_keyboard(m_seat);
        wl_keyboard_add_listener(keyboard, &keyboardListener, &seatKeymap);
        m_connection->roundtrip();
        wl_keyboard_destroy(keyboard); // version 1 has no release request
    }
    QString why;
    if (!seatKeymap.text.isEmpty())
        m_keymap = XkbKeymap::fromText(seatKeymap.text, &why);
    if (!m_keymap) // no keyboard yet: the layout the environment names, else US
        m_keymap = XkbKeymap::fromNames({}, {}, &why);
    if (!m_keymap) {
        m_failure = why;
        return false;
    }

    const QByteArray text = m_keymap->text();
    const int fd = ::memfd_create("dictora-keymap", MFD_CLOEXEC);
    if (fd < 0 || ::write(fd, text.constData(), size_t(text.size())) != text.size()) {
        if (fd >= 0)
            ::close(fd);
        m_failure = QStringLiteral("The keymap for the virtual keyboard could not be written.");
        return false;
    }
    m_keyboard = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(m_manager, m_seat);
    zwp_virtual_keyboard_v1_keymap(m_keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd, quint32(text.size()));
    ::close(fd);
    // Keys sent before the keymap is in place are dropped: the compositor
    // has taken it in once this round trip returns. An empty modifier state
    // then makes ours the seat's current keyboard ahead of the first paste.
    m_connection->roundtrip();
    zwp_virtual_keyboard_v1_modifiers(m_keyboard, 0, 0, 0, 0);
    if (!m_connection->roundtrip()) {
        m_failure = m_connection->failureReason();
        zwp_virtual_keyboard_v1_destroy(m_keyboard);
        m_keyboard = nullptr;
        return false;
    }
    return true;
}

void WaylandKeystrokeSender::sendKey(quint32 evdevCode, bool pressed)
{
    zwp_virtual_keyboard_v1_key(m_keyboard, now(), evdevCode,
                                pressed ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
    const XkbKeymap::Modifiers mods = m_keymap->updateKey(evdevCode, pressed);
    zwp_virtual_keyboard_v1_modifiers(m_keyboard, mods.depressed, mods.latched, mods.locked, mods.group);
}

bool WaylandKeystrokeSender::send(PasteKeystroke keystroke)
{
    if (!m_keyboard || !m_connection->isOpen())
        return false;
    std::vector<quint32> keysyms;
    quint32 key = XKB_KEY_v;
    switch (keystroke) {
    case PasteKeystroke::controlV:
        keysyms = {XKB_KEY_Control_L};
        break;
    case PasteKeystroke::controlShiftV:
        keysyms = {XKB_KEY_Control_L, XKB_KEY_Shift_L};
        break;
    case PasteKeystroke::shiftInsert:
        keysyms = {XKB_KEY_Shift_L};
        key = XKB_KEY_Insert;
        break;
    }
    std::vector<quint32> modifiers;
    for (quint32 sym : keysyms) {
        const auto code = m_keymap->evdevCodeFor(sym);
        if (!code)
            return false;
        modifiers.push_back(*code);
    }
    const auto keyCode = m_keymap->evdevCodeFor(key);
    if (!keyCode)
        return false;

    for (quint32 code : modifiers)
        sendKey(code, true);
    sendKey(*keyCode, true);
    sendKey(*keyCode, false);
    for (auto it = modifiers.rbegin(); it != modifiers.rend(); ++it)
        sendKey(*it, false);
    m_connection->flush();
    return m_connection->isOpen();
}

} // namespace dictora::wayland
