#include "text/SnippetExpander.h"

#include <QTextBoundaryFinder>

#include <algorithm>

namespace dictora {

namespace {

bool isMergingPunctuation(QChar c)
{
    return QStringView(u".,!?;:").contains(c);
}

bool isAscii(const QString &text, qsizetype i)
{
    return i < 0 || i >= text.size() || text.at(i).unicode() < 0x80;
}

// Code units each side of a match that its grapheme boundaries are judged by:
// clusters are short; only runs of hundreds of flags or joiners reach further.
constexpr qsizetype kBoundaryContext = 256;

// Case-insensitive search that only accepts whole grapheme clusters, so "e"
// never matches the first half of a decomposed "é". Plain ASCII around both
// ends is always a cluster boundary, which spares the boundary scan.
qsizetype findTrigger(const QString &text, const QString &trigger, qsizetype from)
{
    for (qsizetype at = text.indexOf(trigger, from, Qt::CaseInsensitive); at >= 0;
         at = text.indexOf(trigger, at + 1, Qt::CaseInsensitive)) {
        const qsizetype end = at + trigger.size();
        if (isAscii(text, at - 1) && isAscii(text, at) && isAscii(text, end - 1) && isAscii(text, end))
            return at;
        // Only the text near the match decides its boundaries; scanning the
        // whole text for every match made long non-ASCII texts quadratic.
        const qsizetype windowStart = std::max<qsizetype>(0, at - kBoundaryContext);
        const qsizetype windowEnd = std::min(text.size(), end + kBoundaryContext);
        QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text.constData() + windowStart,
            windowEnd - windowStart);
        boundaries.setPosition(at - windowStart);
        if (!boundaries.isAtBoundary())
            continue;
        boundaries.setPosition(end - windowStart);
        if (boundaries.isAtBoundary())
            return at;
    }
    return -1;
}

} // namespace

QString SnippetExpander::apply(const QString &text, const SnippetEntries &entries)
{
    QString out = text;
    for (const SnippetEntry &entry : entries) {
        const QString trigger = entry.trigger.trimmed();
        if (trigger.isEmpty() || entry.expansion.isEmpty() || out.isEmpty())
            continue;
        qsizetype searchStart = 0;
        while (searchStart < out.size()) {
            const qsizetype at = findTrigger(out, trigger, searchStart);
            if (at < 0)
                break;
            const qsizetype after = at + trigger.size();
            QString replacement = entry.expansion;
            // Later entries may expand inside earlier expansions, which can grow
            // the text without bound; past this length no more are made.
            if (out.size() - trigger.size() + replacement.size() > SnippetExpander::kMaxLength)
                return out;
            // "… sig." with an expansion ending in "." must not give two full stops.
            if (after < out.size() && isMergingPunctuation(out.at(after))
                && isMergingPunctuation(replacement.back()))
                replacement.chop(1);
            out.replace(at, trigger.size(), replacement);
            searchStart = qMin(at + replacement.size(), out.size());
        }
    }
    return out;
}

} // namespace dictora
