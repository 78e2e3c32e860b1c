#include "platform/portal/PortalTrigger.h"

#include "shortcut/KeyCodes.h"

#include <QHash>

#include <algorithm>

namespace dictora::portal {

std::optional<QString> keysymName(int evdev)
{
    static const QHash<int, QString> names = [] {
        QHash<int, QString> n;
        const auto row = [&n](int first, const char *letters) {
            for (int i = 0; letters[i]; ++i)
                n.insert(first + i, QString(QLatin1Char(letters[i])));
        };
        row(16, "qwertyuiop");
        row(30, "asdfghjkl");
        row(44, "zxcvbnm");
        row(2, "1234567890");
        for (int f = 1; f <= 10; ++f)
            n.insert(58 + f, QStringLiteral("F%1").arg(f));
        n.insert(87, QStringLiteral("F11"));
        n.insert(88, QStringLiteral("F12"));
        for (int f = 13; f <= 24; ++f)
            n.insert(183 + f - 13, QStringLiteral("F%1").arg(f));
        const std::pair<int, const char *> named[] = {{41, "grave"}, {12, "minus"}, {13, "equal"},
            {26, "bracketleft"}, {27, "bracketright"}, {43, "backslash"}, {39, "semicolon"}, {40, "apostrophe"},
            {51, "comma"}, {52, "period"}, {53, "slash"}, {57, "space"}, {28, "Return"}, {15, "Tab"},
            {1, "Escape"}, {14, "BackSpace"}, {110, "Insert"}, {111, "Delete"}, {102, "Home"}, {107, "End"},
            {104, "Prior"}, {109, "Next"}, {105, "Left"}, {106, "Right"}, {103, "Up"}, {108, "Down"},
            {86, "less"}, {119, "Pause"}, {70, "Scroll_Lock"}, {99, "Print"}};
        for (const auto &[code, name] : named)
            n.insert(code, QLatin1String(name));
        return n;
    }();
    const auto it = names.constFind(evdev);
    if (it == names.constEnd())
        return std::nullopt;
    return *it;
}

namespace {
QString withModifiers(const GlobalShortcut &shortcut, const QString &key)
{
    QStringList parts;
    const GlobalShortcutModifiers m = shortcut.modifiers;
    if (m.contains(GlobalShortcutModifiers::control))
        parts << QStringLiteral("CTRL");
    if (m.contains(GlobalShortcutModifiers::option))
        parts << QStringLiteral("ALT");
    if (m.contains(GlobalShortcutModifiers::shift))
        parts << QStringLiteral("SHIFT");
    if (m.contains(GlobalShortcutModifiers::command))
        parts << QStringLiteral("LOGO");
    parts << key;
    return parts.join(QLatin1Char('+'));
}
} // namespace

std::optional<QString> preferredTrigger(const GlobalShortcut &shortcut)
{
    const std::optional<int> evdev = KeyCodes::evdevFromKeyCode(shortcut.keyCode);
    const std::optional<QString> key = evdev ? keysymName(*evdev) : std::nullopt;
    if (!key)
        return std::nullopt;
    return withModifiers(shortcut, *key);
}

std::optional<QString> keycodeTrigger(const GlobalShortcut &shortcut)
{
    const std::optional<int> evdev = KeyCodes::evdevFromKeyCode(shortcut.keyCode);
    if (!evdev)
        return std::nullopt;
    constexpr int kX11Offset = 8; // X keycodes are evdev codes plus 8
    return withModifiers(shortcut, QStringLiteral("0x%1").arg(*evdev + kX11Offset, 0, 16));
}

QStringList preferredTriggers(const GlobalShortcut &shortcut, const QList<LayoutName> &layouts)
{
    QStringList triggers;
    const std::optional<int> evdev = KeyCodes::evdevFromKeyCode(shortcut.keyCode);
    if (evdev) {
        for (const LayoutName &layout : layouts) {
            const QString key = keysymNameOn(*evdev, layout);
            if (!key.isEmpty() && !triggers.contains(withModifiers(shortcut, key)))
                triggers << withModifiers(shortcut, key);
        }
    }
    // Where a layout has no Latin letters, GNOME matches shortcuts by their
    // US names too; it never fires the Cyrillic name alone.
    const bool nonLatin = std::any_of(layouts.cbegin(), layouts.cend(), [](const LayoutName &l) { return !typesLatinV(l); });
    if (triggers.isEmpty() || nonLatin) {
        if (const std::optional<QString> us = preferredTrigger(shortcut); us && !triggers.contains(*us))
            triggers << *us;
    }
    return triggers;
}

} // namespace dictora::portal
