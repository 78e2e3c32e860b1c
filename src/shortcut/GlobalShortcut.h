#pragma once

#include <QByteArray>
#include <QString>
#include <Qt>

#include <cstdint>
#include <optional>

namespace dictora {

// Bit set over an 8-bit raw value; unnamed bits survive decoding and count in validation.
struct GlobalShortcutModifiers {
    static constexpr std::uint8_t command = 1;
    static constexpr std::uint8_t control = 2;
    static constexpr std::uint8_t option = 4;
    static constexpr std::uint8_t shift = 8;

    std::uint8_t rawValue = 0;

    bool contains(std::uint8_t bits) const { return (rawValue & bits) == bits; }
    bool isEmpty() const { return rawValue == 0; }

    // Linux display form, always in the order Ctrl, Alt, Shift, Super, each
    // followed by "+" ("Ctrl+Alt+"); empty for the empty set.
    QString displayPrefix() const;

    // Ctrl -> control, Alt -> option, Shift -> shift, Meta (Super) -> command;
    // every other flag (keypad, group switch) is ignored.
    static GlobalShortcutModifiers fromQt(Qt::KeyboardModifiers modifiers);

    friend bool operator==(GlobalShortcutModifiers, GlobalShortcutModifiers) = default;
};

struct GlobalShortcut {
    std::int64_t keyCode = 50;
    GlobalShortcutModifiers modifiers;
    QString keyLabel = QStringLiteral("`");

    static GlobalShortcut defaultShortcut();

    // What settings and log lines show: the modifier prefix, then the label ("Ctrl+Alt+K", "`").
    QString displayText() const;

    // Stored form under "keyboard.shortcut.v1": {"keyCode":…,"modifiers":…,"keyLabel":…}.
    QByteArray toJson() const;
    static std::optional<GlobalShortcut> fromJson(const QByteArray &json);
    // Loading rule: missing, undecodable or invalid data gives the default.
    static GlobalShortcut loadOrDefault(const QByteArray &json);

    friend bool operator==(const GlobalShortcut &, const GlobalShortcut &) = default;
};

struct GlobalShortcutValidation {
    bool valid = true;
    QString message;
    static GlobalShortcutValidation ok() { return {}; }
    static GlobalShortcutValidation invalid(const QString &m) { return {false, m}; }
    friend bool operator==(const GlobalShortcutValidation &, const GlobalShortcutValidation &) = default;
};

namespace GlobalShortcutValidator {
GlobalShortcutValidation validate(const GlobalShortcut &shortcut);
// Shown where a failure carries no message of its own.
QString fallbackMessage();
}

// The controller's answer to a request for a new shortcut.
struct ShortcutUpdateResult {
    // waitingForDesktop: the desktop was asked (it may show a dialog); the
    // shortcut changes once it confirms, and stays as it was if it refuses.
    enum class Kind { failed, updated, needsAccessibility, waitingForDesktop };
    Kind kind = Kind::updated;
    QString message; // only for failed

    static ShortcutUpdateResult failed(const QString &m) { return {Kind::failed, m}; }
    static ShortcutUpdateResult updated() { return {Kind::updated, {}}; }
    static ShortcutUpdateResult needsAccessibility() { return {Kind::needsAccessibility, {}}; }
    static ShortcutUpdateResult waitingForDesktop() { return {Kind::waitingForDesktop, {}}; }
    friend bool operator==(const ShortcutUpdateResult &, const ShortcutUpdateResult &) = default;
};

} // namespace dictora
