#include "platform/portal/UinputKeystrokeSender.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace dictora::portal {

namespace {
// Compositors open a new input device asynchronously; keys sent before they
// have it are lost.
constexpr std::chrono::milliseconds kDeviceSettle{200};
} // namespace

QString UinputKeystrokeSender::accessProblem(const QString &devicePath)
{
    const QFileInfo info(devicePath);
    if (!info.exists())
        return QStringLiteral("This system has no %1 (the uinput kernel module is not loaded).").arg(devicePath);
    if (::access(devicePath.toLocal8Bit().constData(), W_OK) != 0) {
        return QStringLiteral("Dictora may not use %1. Install Dictora's udev rule (60-dictora-uinput.rules) "
                              "and log in again.")
            .arg(devicePath);
    }
    return {};
}

UinputKeystrokeSender::UinputKeystrokeSender(QString devicePath, int keyForV) : m_keyForV(keyForV)
{
    m_failureReason = accessProblem(devicePath);
    if (!m_failureReason.isEmpty())
        return;
    m_fd = ::open(devicePath.toLocal8Bit().constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        m_failureReason = QStringLiteral("%1 could not be opened: %2").arg(devicePath, QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    bool ok = ::ioctl(m_fd, UI_SET_EVBIT, EV_KEY) == 0 && ::ioctl(m_fd, UI_SET_EVBIT, EV_SYN) == 0;
    for (int code : {Evdev::leftCtrl, Evdev::leftShift, Evdev::insert, keyForV})
        ok = ok && ::ioctl(m_fd, UI_SET_KEYBIT, code) == 0;
    uinput_setup setup{};
    setup.id.bustype = BUS_VIRTUAL;
    setup.id.vendor = 0x1d6b; // Linux Foundation, as virtual devices do
    setup.id.product = 0x0d1c;
    std::strncpy(setup.name, kDeviceName, UINPUT_MAX_NAME_SIZE - 1);
    ok = ok && ::ioctl(m_fd, UI_DEV_SETUP, &setup) == 0 && ::ioctl(m_fd, UI_DEV_CREATE) == 0;
    if (!ok) {
        m_failureReason = QStringLiteral("The virtual keyboard could not be created: %1")
                              .arg(QString::fromLocal8Bit(std::strerror(errno)));
        ::close(m_fd);
        m_fd = -1;
        return;
    }
    m_createdAt = std::chrono::steady_clock::now();
}

UinputKeystrokeSender::~UinputKeystrokeSender()
{
    if (m_fd >= 0) {
        ::ioctl(m_fd, UI_DEV_DESTROY);
        ::close(m_fd);
    }
}

bool UinputKeystrokeSender::emitEvent(int type, int code, int value)
{
    input_event event{};
    event.type = static_cast<__u16>(type);
    event.code = static_cast<__u16>(code);
    event.value = value;
    return ::write(m_fd, &event, sizeof event) == static_cast<ssize_t>(sizeof event);
}

bool UinputKeystrokeSender::send(PasteKeystroke keystroke)
{
    if (m_fd < 0)
        return false;
    // Only the very first paste after start-up can land here this early.
    const auto sinceCreated = std::chrono::steady_clock::now() - m_createdAt;
    if (sinceCreated < kDeviceSettle)
        std::this_thread::sleep_for(kDeviceSettle - sinceCreated);
    for (const KeyTransition &t : keySequence(keystroke, m_keyForV)) {
        if (!emitEvent(EV_KEY, t.code, t.down ? 1 : 0) || !emitEvent(EV_SYN, SYN_REPORT, 0)) {
            m_failureReason = QStringLiteral("The virtual keyboard stopped accepting keys: %1")
                                  .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    }
    return true;
}

} // namespace dictora::portal
