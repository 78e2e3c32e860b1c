#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/XkbKeymap.h"

#include <memory>

struct wl_seat;
struct zwp_virtual_keyboard_manager_v1;
struct zwp_virtual_keyboard_v1;

namespace dictora::wayland {

// Types the paste keystroke through a virtual keyboard of the compositor's
// seat. The keyboard carries the user's layout, so the key for V is found
// the same way as on a physical keyboard. Created once and kept: a fresh
// keyboard's first key can be lost while clients take in its keymap.
class WaylandKeystrokeSender final : public KeystrokeSender {
public:
    WaylandKeystrokeSender();
    ~WaylandKeystrokeSender() override;

    bool isUsable() const { return m_keyboard != nullptr; }

    // The compositor keeps each keyboard's modifiers apart: keys the user
    // holds on a real keyboard never mix with ours, and no protocol tells
    // a client about them. So nothing is ever reported held.
    bool anyKeyHeld() override { return false; }
    bool send(PasteKeystroke keystroke) override;
    QString failureReason() const override { return m_failure; }

private:
    bool setUpKeyboard();
    void sendKey(quint32 evdevCode, bool pressed);

    std::unique_ptr<WaylandConnection> m_connection;
    wl_seat *m_seat = nullptr;
    zwp_virtual_keyboard_manager_v1 *m_manager = nullptr;
    zwp_virtual_keyboard_v1 *m_keyboard = nullptr;
    std::unique_ptr<XkbKeymap> m_keymap;
    QString m_failure;
};

} // namespace dictora::wayland
