#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

struct xkb_context;
struct xkb_keymap;
struct xkb_state;

namespace dictora::wayland {

// One compiled XKB keymap and the modifier state of the keys we press on
// it, so that keys are looked up in the user's layout (V is not on the same
// key on Dvorak) and the modifier masks we report match the keymap.
class XkbKeymap {
public:
    // From keymap text as a compositor hands it to clients.
    static std::unique_ptr<XkbKeymap> fromText(const QByteArray &text, QString *why);
    // From layout names ("us", "de" with variant "nodeadkeys"); empty
    // names take libxkbcommon's defaults and XKB_DEFAULT_* from the environment.
    static std::unique_ptr<XkbKeymap> fromNames(const QString &layout, const QString &variant, QString *why);
    ~XkbKeymap();

    // The keymap in text form, NUL-terminated, as the protocol uploads it.
    QByteArray text() const;
    // The evdev code (XKB keycode - 8) of the first key that gives keysym at
    // level 1 of the first layout; nothing when no key gives it.
    std::optional<quint32> evdevCodeFor(quint32 keysym) const;

    struct Modifiers {
        quint32 depressed = 0, latched = 0, locked = 0, group = 0;
        friend bool operator==(const Modifiers &, const Modifiers &) = default;
    };
    // Presses or releases a key on our own state; returns the masks after it.
    Modifiers updateKey(quint32 evdevCode, bool pressed);

private:
    XkbKeymap() = default;
    xkb_context *m_context = nullptr;
    xkb_keymap *m_keymap = nullptr;
    xkb_state *m_state = nullptr;
};

} // namespace dictora::wayland
