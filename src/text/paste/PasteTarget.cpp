#include "text/paste/PasteTarget.h"

#include <QFile>
#include <QSet>

namespace dictora {

PasteTarget pasteTargetFor(const FrontmostWindow &window)
{
    PasteTarget target;
    target.application.name = window.applicationName.isEmpty() ? QStringLiteral("Unknown")
                                                               : window.applicationName;
    if (!window.windowClass.isEmpty())
        target.application.bundleIdentifier = window.windowClass;
    target.application.processIdentifier = window.processId;
    target.window = window.window;
    return target;
}

PasteKeystroke pasteKeystrokeForWindowClass(const QString &windowClass)
{
    // Both paste PRIMARY on Shift+Insert and have no Ctrl+Shift+V by default.
    static const QSet<QString> primaryTerminals{
        QStringLiteral("xterm"), QStringLiteral("uxterm"), QStringLiteral("urxvt"),
        QStringLiteral("rxvt"), QStringLiteral("urxvt-unicode"), QStringLiteral("rxvt-unicode"),
    };
    // Ctrl+V means "literal next character" in a terminal, so these paste on Ctrl+Shift+V.
    static const QSet<QString> terminals{
        QStringLiteral("gnome-terminal"), QStringLiteral("gnome-terminal-server"),
        QStringLiteral("org.gnome.terminal"), QStringLiteral("org.gnome.console"),
        QStringLiteral("kgx"), QStringLiteral("konsole"), QStringLiteral("org.kde.konsole"),
        QStringLiteral("yakuake"), QStringLiteral("xfce4-terminal"), QStringLiteral("lxterminal"),
        QStringLiteral("tilix"), QStringLiteral("com.gexperts.tilix"), QStringLiteral("terminator"),
        QStringLiteral("alacritty"), QStringLiteral("kitty"), QStringLiteral("wezterm"),
        QStringLiteral("org.wezfurlong.wezterm"), QStringLiteral("foot"), QStringLiteral("footclient"),
        QStringLiteral("st"), QStringLiteral("st-256color"), QStringLiteral("mate-terminal"),
        QStringLiteral("qterminal"), QStringLiteral("sakura"), QStringLiteral("terminology"),
        QStringLiteral("guake"), QStringLiteral("tilda"), QStringLiteral("termite"),
        QStringLiteral("deepin-terminal"), QStringLiteral("cool-retro-term"),
        QStringLiteral("ghostty"), QStringLiteral("com.mitchellh.ghostty"),
        QStringLiteral("contour"), QStringLiteral("blackbox"), QStringLiteral("roxterm"),
        QStringLiteral("x-terminal-emulator"), QStringLiteral("io.elementary.terminal"),
        QStringLiteral("pantheon-terminal"), QStringLiteral("lxqt-terminal"),
    };
    const QString key = windowClass.trimmed().toLower();
    if (primaryTerminals.contains(key))
        return PasteKeystroke::shiftInsert;
    if (terminals.contains(key))
        return PasteKeystroke::controlShiftV;
    return PasteKeystroke::controlV;
}

PasteKeystroke pasteKeystrokeFor(const PasteTarget &target)
{
    const QString windowClass = target.application.bundleIdentifier.value_or(QString());
    const PasteKeystroke byClass = pasteKeystrokeForWindowClass(windowClass);
    if (byClass != PasteKeystroke::controlV)
        return byClass;
    if (target.application.processIdentifier > 0) {
        QFile comm(QStringLiteral("/proc/%1/comm").arg(target.application.processIdentifier));
        if (comm.open(QIODevice::ReadOnly)) {
            const PasteKeystroke byProgram = pasteKeystrokeForWindowClass(QString::fromUtf8(comm.readAll()));
            if (byProgram != PasteKeystroke::controlV)
                return byProgram;
        }
    }
    return windowClass.isEmpty() ? PasteKeystroke::shiftInsert : PasteKeystroke::controlV;
}

} // namespace dictora
