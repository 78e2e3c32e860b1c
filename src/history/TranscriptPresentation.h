#pragma once

#include <QString>

#include <cstdint>

namespace dictora::TranscriptPresentation {

// First `leading` and last `trailing` words joined by " … "; whitespace collapsed.
QString rowPreview(const QString &text, int leadingWordCount = 9, int trailingWordCount = 6);
// "42s", "1m 05s", "1h 02m".
QString durationLabel(std::int64_t milliseconds);

} // namespace dictora::TranscriptPresentation
