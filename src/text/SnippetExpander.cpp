#include "text/SnippetExpander.h"

#include <QTextBoundaryFinder>

#include <algorithm>

namespace dictora {

namespace {

// Code units each side of a match that its grapheme boundaries are judged by:
// clusters are short; only runs of hundreds of flags or joiners reach further.
constexpr qsizetype kBoundaryContext = 256;

bool isMergingPunctuation(QChar c)
{
    return QStringView(u".,!?;:").contains(c);
}

bool isAscii(QChar c)
{
    return c.unicode() < 0x80;
}

// One entry's pass. The text being searched is `done` (the rewritten part,
// never searched again) followed by `source` from `from` on; matches are
// found in `source`, and their boundaries judged in that joined text.
class Pass {
public:
    Pass(const QString &source, const QString &trigger) : m_source(source), m_trigger(trigger) {}

    // Case-insensitive search that only accepts whole grapheme clusters, so
    // "e" never matches the first half of a decomposed "é". Plain ASCII
    // around both ends is always a cluster boundary, which spares the scan.
    qsizetype find(const QString &done, qsizetype from) const
    {
        for (qsizetype at = m_source.indexOf(m_trigger, from, Qt::CaseInsensitive); at >= 0;
             at = m_source.indexOf(m_trigger, at + 1, Qt::CaseInsensitive)) {
            if (isWholeClusters(done, from, at))
                return at;
        }
        return -1;
    }

private:
    bool isWholeClusters(const QString &done, qsizetype from, qsizetype at) const
    {
        const qsizetype end = at + m_trigger.size();
        const QChar none(u' ');
        const QChar before = at > from ? m_source.at(at - 1) : done.isEmpty() ? none : done.back();
        const QChar after = end < m_source.size() ? m_source.at(end) : none;
        if (isAscii(before) && isAscii(m_source.at(at)) && isAscii(m_source.at(end - 1)) && isAscii(after))
            return true;
        // Only the text near the match decides; scanning the whole text for
        // every match made long non-ASCII texts quadratic.
        QString window;
        const qsizetype fromSource = std::min(at - from, kBoundaryContext);
        if (fromSource < kBoundaryContext)
            window = done.right(kBoundaryContext - fromSource);
        const qsizetype start = window.size();
        window += QStringView(m_source).sliced(at - fromSource, fromSource);
        window += QStringView(m_source).sliced(at, std::min(m_source.size(), end + kBoundaryContext) - at);
        QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, window);
        boundaries.setPosition(start + fromSource);
        if (!boundaries.isAtBoundary())
            return false;
        boundaries.setPosition(start + fromSource + m_trigger.size());
        return boundaries.isAtBoundary();
    }

    const QString &m_source;
    const QString &m_trigger;
};

} // namespace

QString SnippetExpander::apply(const QString &text, const SnippetEntries &entries)
{
    QString out = text;
    for (const SnippetEntry &entry : entries) {
        const QString trigger = entry.trigger.trimmed();
        if (trigger.isEmpty() || entry.expansion.isEmpty() || out.isEmpty())
            continue;
        // Built piece by piece: replacing in place moved the whole tail per match.
        const Pass pass(out, trigger);
        QString done;
        qsizetype from = 0;
        bool capped = false;
        while (from < out.size()) {
            const qsizetype at = pass.find(done, from);
            if (at < 0)
                break;
            const qsizetype after = at + trigger.size();
            QString replacement = entry.expansion;
            // "… sig." with an expansion ending in "." must not give two full stops.
            if (after < out.size() && isMergingPunctuation(out.at(after)) && isMergingPunctuation(replacement.back()))
                replacement.chop(1);
            // Later entries may expand inside earlier expansions, which can grow
            // the text without bound; past this length no more are made.
            if (done.size() + (at - from) + replacement.size() + (out.size() - after) > kMaxLength) {
                capped = true;
                break;
            }
            done += QStringView(out).sliced(from, at - from);
            done += replacement;
            from = after;
        }
        done += QStringView(out).sliced(from);
        out = std::move(done);
        if (capped)
            return out;
    }
    return out;
}

} // namespace dictora
