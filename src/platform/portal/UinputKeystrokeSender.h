#pragma once

#include "platform/KeystrokeSender.h"
#include "platform/portal/EvdevKeystroke.h"

#include <QString>

#include <chrono>

namespace dictora::portal {

// A virtual keyboard made through /dev/uinput: the kernel delivers its keys
// to whatever compositor reads input, so it types wherever the focus is.
// Needs write access to /dev/uinput, which the installed udev rule grants to
// the user at the seat (uaccess), never to every member of a group.
class UinputKeystrokeSender final : public KeystrokeSender {
public:
    static constexpr auto kDevicePath = "/dev/uinput";
    static constexpr auto kDeviceName = "Dictora virtual keyboard";

    explicit UinputKeystrokeSender(QString devicePath = QLatin1String(kDevicePath), int keyForV = Evdev::v);
    ~UinputKeystrokeSender() override;

    // Why /dev/uinput is not usable here, in words for the user; empty when it is.
    static QString accessProblem(const QString &devicePath = QLatin1String(kDevicePath));

    bool isOpen() const { return m_fd >= 0; }
    bool send(PasteKeystroke keystroke) override;
    // The kernel does not tell a uinput client which keys are held.
    bool anyKeyHeld() override { return false; }
    QString failureReason() const override { return m_failureReason; }

private:
    bool emitEvent(int type, int code, int value);

    int m_fd = -1;
    int m_keyForV;
    QString m_failureReason;
    std::chrono::steady_clock::time_point m_createdAt;
};

} // namespace dictora::portal
