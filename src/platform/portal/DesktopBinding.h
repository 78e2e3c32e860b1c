#pragma once

#include "platform/ShortcutBackend.h"

#include <QHash>
#include <QString>
#include <QStringList>

namespace dictora::portal {

// The desktops whose own key bindings can run a command.
enum class Desktop { gnome, kde, sway, hyprland, river, other };

// From XDG_CURRENT_DESKTOP (a colon-separated list; the first known name wins).
Desktop desktopFromName(const QString &currentDesktop);
Desktop currentDesktop();
QString desktopDisplayName(Desktop desktop);

// The line(s) to put in the compositor's configuration so the shortcut runs
// Dictora: one line for the toggle, a press line and a release line for hold
// to talk. Empty where the desktop has no configuration file for it.
QStringList bindingLines(Desktop desktop, const GlobalShortcut &shortcut, bool holdToTalk);

// The Hyprland line that gives the portal's shortcut its key (press and
// release reach Dictora through the portal).
QString hyprlandGlobalLine(const GlobalShortcut &shortcut);

// GNOME's own accelerator syntax: "<Control><Alt>k", "grave".
QString gnomeAccelerator(const GlobalShortcut &shortcut);

// The triggers GNOME's settings daemon keeps for an application's portal
// shortcuts, by shortcut id: what its portal grabs once a session binds
// them. Empty where gsettings or the store has none. Blocking; any thread.
QHash<QString, QStringList> gnomePortalShortcuts(const QString &appId);

// A GNOME custom keybinding (media-keys settings) that runs "dictora toggle".
// Uses the gsettings tool: the settings daemon reads the same dconf store,
// and GSETTINGS_BACKEND lets tests keep it in a file. Blocking; safe from any
// thread (each call runs its own process).
class GnomeKeybinding {
public:
    static constexpr auto kListSchema = "org.gnome.settings-daemon.plugins.media-keys";
    static constexpr auto kEntrySchema = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
    static constexpr auto kEntryPath = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/dictora/";
    static constexpr auto kCommand = "dictora toggle";

    // Whether the settings schema exists at all (GNOME is installed).
    static bool isAvailable();
    // The accelerator of a custom keybinding that runs Dictora, or empty.
    static QString installedAccelerator();
    // Adds (or updates) Dictora's entry and lists it. False with `error` set
    // when gsettings refused.
    static bool install(const GlobalShortcut &shortcut, QString *error = nullptr);
    // What the keybinding runs: this program by its full path, and "toggle".
    static QString command();
    static bool remove(QString *error = nullptr);
};

// For desktops without the GlobalShortcuts portal: the desktop's own binding
// runs `dictora toggle`, or `dictora press` and `dictora release`, which reach
// the running instance through its socket. Nothing to grab here, so install()
// succeeds; what the user must do is in instructions().
class DesktopBindingShortcutBackend final : public ShortcutBackend {
    Q_OBJECT
public:
    DesktopBindingShortcutBackend(Desktop desktop, QObject *parent = nullptr);

    bool install(const GlobalShortcut &shortcut) override;
    bool verifyInstalled(const GlobalShortcut &shortcut) const override;
    void uninstall() override;
    QString failureReason() const override { return {}; }

    Desktop desktop() const { return m_desktop; }
    // What to do so the key reaches Dictora, for the settings sheet.
    QString instructions(bool holdToTalk) const;

private:
    Desktop m_desktop;
    std::optional<GlobalShortcut> m_installed;
};

} // namespace dictora::portal
