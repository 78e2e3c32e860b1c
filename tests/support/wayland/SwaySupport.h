#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <memory>

class QProcess;

// Drives the headless Sway session that tests/support/wayland/with-sway
// stands up: its IPC through swaymsg, and foot terminals as native Wayland
// paste targets whose input can be read back.
namespace dictora::test::sway {

// 0 when a Sway session is reachable; else it printed why and returns 77.
int checkSession();

// Runs one swaymsg command; false with the reply in *why when it failed.
bool command(const QString &command, QString *why = nullptr);
// The focused window's app id ("" when none), from Sway's own tree.
QString focusedAppId();
// Focuses the window with this app id and waits until Sway says it has it.
bool focus(const QString &appId, QString *why);
// Waits until a window with this app id exists (and, with focused, has focus).
bool waitForWindow(const QString &appId, bool focused, QString *why);

// foot running cat in raw mode: every byte a paste delivers lands in file.
class Foot {
public:
    Foot(QString appId, QString file);
    ~Foot();
    Foot(const Foot &) = delete;
    Foot &operator=(const Foot &) = delete;

    // Starts it inside the session and waits until it is mapped and focused.
    bool start(QString *why);
    QString appId() const { return m_appId; }
    QString received() const;
    // Waits until what it received is expected; actual gets what it holds.
    bool waitFor(const QString &expected, int timeoutMs, QString *actual) const;

private:
    QString m_appId;
    QString m_file;
    bool m_started = false;
};

} // namespace dictora::test::sway
