#include "shortcut/GlobalShortcut.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>
#include <limits>

namespace dictora {

namespace {
const QString kBacktick = QString(QChar(0x60));

// JSON numbers arrive as doubles; accept only exact integers.
std::optional<std::int64_t> exactInteger(const QJsonValue &v)
{
    if (!v.isDouble())
        return std::nullopt;
    const double d = v.toDouble();
    if (!std::isfinite(d) || std::trunc(d) != d || std::fabs(d) > 9.007199254740992e15)
        return std::nullopt;
    return static_cast<std::int64_t>(d);
}
} // namespace

QString GlobalShortcutModifiers::displayPrefix() const
{
    QString prefix;
    if (contains(control))
        prefix += QStringLiteral("Ctrl+");
    if (contains(option))
        prefix += QStringLiteral("Alt+");
    if (contains(shift))
        prefix += QStringLiteral("Shift+");
    if (contains(command))
        prefix += QStringLiteral("Super+");
    return prefix;
}

GlobalShortcutModifiers GlobalShortcutModifiers::fromQt(Qt::KeyboardModifiers modifiers)
{
    std::uint8_t raw = 0;
    if (modifiers & Qt::ControlModifier)
        raw |= control;
    if (modifiers & Qt::AltModifier)
        raw |= option;
    if (modifiers & Qt::ShiftModifier)
        raw |= shift;
    if (modifiers & Qt::MetaModifier)
        raw |= command;
    return {raw};
}

QString GlobalShortcut::displayText() const
{
    return modifiers.displayPrefix() + keyLabel;
}

GlobalShortcut GlobalShortcut::defaultShortcut()
{
    return GlobalShortcut{50, {}, kBacktick};
}

QByteArray GlobalShortcut::toJson() const
{
    // Assembled by hand to keep the documented key order; Qt escapes the label.
    QByteArray labelJson = QJsonDocument(QJsonArray{keyLabel}).toJson(QJsonDocument::Compact);
    labelJson = labelJson.mid(1, labelJson.size() - 2);
    return "{\"keyCode\":" + QByteArray::number(static_cast<qlonglong>(keyCode))
        + ",\"modifiers\":" + QByteArray::number(modifiers.rawValue)
        + ",\"keyLabel\":" + labelJson + "}";
}

std::optional<GlobalShortcut> GlobalShortcut::fromJson(const QByteArray &json)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject o = doc.object();
    const auto keyCode = exactInteger(o.value(QStringLiteral("keyCode")));
    const auto modifiers = exactInteger(o.value(QStringLiteral("modifiers")));
    const QJsonValue label = o.value(QStringLiteral("keyLabel"));
    if (!keyCode || !modifiers || !label.isString() || *modifiers < 0 || *modifiers > 255)
        return std::nullopt;
    return GlobalShortcut{*keyCode, {static_cast<std::uint8_t>(*modifiers)}, label.toString()};
}

GlobalShortcut GlobalShortcut::loadOrDefault(const QByteArray &json)
{
    if (json.isEmpty())
        return defaultShortcut();
    const auto decoded = fromJson(json);
    if (!decoded || !GlobalShortcutValidator::validate(*decoded).valid)
        return defaultShortcut();
    return *decoded;
}

QString GlobalShortcutValidator::fallbackMessage()
{
    return QStringLiteral("Choose a different keyboard shortcut.");
}

GlobalShortcutValidation GlobalShortcutValidator::validate(const GlobalShortcut &s)
{
    const unsigned raw = s.modifiers.rawValue;
    if (s.keyLabel.isEmpty())
        return GlobalShortcutValidation::invalid(
            QStringLiteral("Press a letter, number, punctuation key, or function key."));
    if (s.keyCode == 50 && raw == 0 && s.keyLabel == kBacktick)
        return GlobalShortcutValidation::ok();
    if ((raw & (raw - 1)) == 0)
        return GlobalShortcutValidation::invalid(
            QStringLiteral("Use at least two modifier keys so normal typing stays untouched."));
    constexpr unsigned primary = GlobalShortcutModifiers::command | GlobalShortcutModifiers::control
        | GlobalShortcutModifiers::option;
    if ((raw & primary) == 0)
        return GlobalShortcutValidation::invalid(
            QStringLiteral("Include Command, Control, or Option in the shortcut."));
    return GlobalShortcutValidation::ok();
}

} // namespace dictora
