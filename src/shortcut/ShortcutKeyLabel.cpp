#include "shortcut/ShortcutKeyLabel.h"

#include <QHash>

namespace dictora::ShortcutKeyLabel {

namespace {
const QHash<std::int64_t, QString> &specialKeys()
{
    static const QHash<std::int64_t, QString> table{
        {36, QStringLiteral("Return")},
        {48, QStringLiteral("Tab")},
        {49, QStringLiteral("Space")},
        {50, QString(QChar(0x60))},
        {51, QStringLiteral("Delete")},
        {53, QStringLiteral("Esc")},
        {115, QStringLiteral("Home")},
        {116, QStringLiteral("Page Up")},
        {117, QStringLiteral("Forward Delete")},
        {119, QStringLiteral("End")},
        {121, QStringLiteral("Page Down")},
        {123, QString(QChar(0x2190))}, // ←
        {124, QString(QChar(0x2192))}, // →
        {125, QString(QChar(0x2193))}, // ↓
        {126, QString(QChar(0x2191))}, // ↑
        {122, QStringLiteral("F1")},
        {120, QStringLiteral("F2")},
        {99, QStringLiteral("F3")},
        {118, QStringLiteral("F4")},
        {96, QStringLiteral("F5")},
        {97, QStringLiteral("F6")},
        {98, QStringLiteral("F7")},
        {100, QStringLiteral("F8")},
        {101, QStringLiteral("F9")},
        {109, QStringLiteral("F10")},
        {103, QStringLiteral("F11")},
        {111, QStringLiteral("F12")},
        {105, QStringLiteral("F13")},
        {107, QStringLiteral("F14")},
        {113, QStringLiteral("F15")},
        {106, QStringLiteral("F16")},
        {64, QStringLiteral("F17")},
        {79, QStringLiteral("F18")},
        {80, QStringLiteral("F19")},
        {90, QStringLiteral("F20")},
    };
    return table;
}
} // namespace

std::optional<QString> specialKeyLabel(std::int64_t keyCode)
{
    const auto it = specialKeys().constFind(keyCode);
    if (it == specialKeys().constEnd())
        return std::nullopt;
    return *it;
}

QString label(std::int64_t keyCode, const std::optional<QString> &characters)
{
    if (const auto special = specialKeyLabel(keyCode))
        return *special;
    if (characters) {
        const QString upper = characters->trimmed().toUpper();
        if (!upper.isEmpty())
            return upper;
    }
    return QStringLiteral("Key %1").arg(keyCode);
}

} // namespace dictora::ShortcutKeyLabel
