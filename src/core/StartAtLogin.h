#pragma once

#include <QString>

namespace dictora {

class ProductPreferences;

// "Start at login" through the user's own autostart entry,
// $XDG_CONFIG_HOME/autostart/<desktop id>.desktop, which every XDG desktop
// reads at login. The entry on disk is what counts: one written by hand is
// on, one deleted elsewhere is off, and the preference follows it.
class StartAtLogin {
public:
    // The preferences must outlive this. `executable` is what the entry starts.
    StartAtLogin(ProductPreferences &preferences, QString desktopId, QString executable);

    // $XDG_CONFIG_HOME/autostart, or ~/.config/autostart.
    static QString autostartDirectory();
    QString entryPath() const;

    // An entry is present and not switched off (Hidden=true or
    // X-GNOME-Autostart-enabled=false).
    bool entryEnabled() const;
    // The preference takes the entry's state.
    void refresh();
    // Writes (atomically) or removes the entry. Returns why it failed, empty
    // when it worked; either way the preference ends up as the entry is.
    QString setEnabled(bool on);

    // The text of the entry written for `executable`.
    static QByteArray entryText(const QString &executable);

private:
    QString write();
    QString remove();

    ProductPreferences &m_preferences;
    QString m_desktopId;
    QString m_executable;
};

} // namespace dictora
