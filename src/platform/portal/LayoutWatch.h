#pragma once

#include "platform/portal/KeyboardLayout.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QTimer>

#include <optional>

namespace dictora::portal {

// The user's keyboard layouts as the desktop changes them. Read off the GUI
// thread at first use and again whenever GNOME's input sources (dconf) or
// KDE's layout list change. Main thread.
class LayoutWatch final : public QObject {
    Q_OBJECT
public:
    // The session bus's; lives as long as the process.
    static LayoutWatch &instance();
    explicit LayoutWatch(QDBusConnection connection, QObject *parent = nullptr);

    // Nothing until the first read has finished.
    std::optional<QList<LayoutName>> layouts() const { return m_layouts; }

Q_SIGNALS:
    // The first read finished, or the list differs from the last one.
    void changed();

private Q_SLOTS:
    void onDconfNotify(const QDBusMessage &message);
    void onKdeLayouts();

private:
    void read();

    QDBusConnection m_connection;
    std::optional<QList<LayoutName>> m_layouts;
    QTimer m_settle; // a settings page writes several keys at once
    bool m_reading = false;
    bool m_readAgain = false;
};

} // namespace dictora::portal
