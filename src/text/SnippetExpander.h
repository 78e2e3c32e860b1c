#pragma once

#include "text/SnippetEntry.h"

namespace dictora {

// Rewrites a finished transcript with the user's snippets. Each entry, in list
// order, replaces every case-insensitive occurrence of its trimmed trigger
// (anywhere, also inside words); the search resumes after the inserted text, so
// an expansion is never expanded again by its own entry. Pure and thread-safe.
namespace SnippetExpander {
// Far longer than any dictation; an expansion that would pass it is not made.
constexpr qsizetype kMaxLength = 200'000;
QString apply(const QString &text, const SnippetEntries &entries);
}

} // namespace dictora
