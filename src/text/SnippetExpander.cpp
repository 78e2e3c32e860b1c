#include "text/SnippetExpander.h"

#include <QTextBoundaryFinder>

#include <optional>

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

// Case-insensitive search that only accepts whole grapheme clusters, so "e"
// never matches the first half of a decomposed "é". Plain ASCII around both
// ends is always a cluster boundary, which spares the boundary scan.
qsizetype findTrigger(const QString &text, const QString &trigger, qsizetype from)
{
    std::optional<QTextBoundaryFinder> boundaries;
    for (qsizetype at = text.indexOf(trigger, from, Qt::CaseInsensitive); at >= 0;
         at = text.indexOf(trigger, at + 1, Qt::CaseInsensitive)) {
        const qsizetype end = at + trigger.size();
        if (isAscii(text, at - 1) && isAscii(text, at) && isAscii(text, end - 1) && isAscii(text, end))
            return at;
        if (!boundaries)
            boundaries.emplace(QTextBoundaryFinder::Grapheme, text);
        boundaries->setPosition(at);
        if (!boundaries->isAtBoundary())
            continue;
        boundaries->setPosition(end);
        if (boundaries->isAtBoundary())
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
