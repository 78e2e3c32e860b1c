#pragma once

#include <QString>

#include <cstdint>
#include <optional>

namespace dictora::ShortcutKeyLabel {

// The label the user sees for a key: the fixed name of a special key (Return,
// Space, arrows, F1-F20, the backtick …), else the key's characters trimmed and
// upper-cased, else "Key <code>". Never empty.
QString label(std::int64_t keyCode, const std::optional<QString> &characters);

// The fixed label of a special key, if keyCode is one.
std::optional<QString> specialKeyLabel(std::int64_t keyCode);

} // namespace dictora::ShortcutKeyLabel
