#pragma once

#include <QString>

#include <optional>

namespace dictora {

// Turns one recogniser transcript into the text that is pasted: drops the
// hesitations "um"/"uh", tidies spacing and punctuation, capitalises sentences
// and turns a spoken list ("here are three bullet points: one …, two …") into
// a numbered list. Stateless; every function is pure, thread-safe and never fails.
// Positions are UTF-16 code units throughout, as QRegularExpression reports them.
class BasicFormatter {
public:
    BasicFormatter() = delete;

    // The controller's entry point when formatting is on: fillers, prose
    // normalisation, then the list step (its result wins when it finds a list).
    static QString format(const QString &raw);
    // What the controller pastes: format(raw) when formatting is enabled,
    // else only the surrounding whitespace and newlines are trimmed. The
    // English rules (fillers, lists, sentence case) are for English, or an
    // unknown language; any other gets only the spacing.
    static QString formatTranscript(const QString &raw, bool formattingEnabled, const QString &language = {});
    // Whitespace collapsed and trimmed, no space before a comma or full stop,
    // one after a comma that touches a word.
    static QString normalizeSpacing(const QString &text);

    // Replaces every filler (with a following , ; : and its spaces) by one space.
    static QString removeFillers(const QString &text);
    static QString normalizeProse(const QString &text);
    static QString capitalizeSentences(const QString &text);
    static QString capitalizeFirstLetter(const QString &text);
    // The numbered-list form of normalised prose, or nullopt when it is not a list.
    static std::optional<QString> formatExplicitList(const QString &text);
    // Spoken number word (lower case) to value; "to" counts as two.
    static std::optional<int> numberValue(const QString &word);
};

} // namespace dictora
