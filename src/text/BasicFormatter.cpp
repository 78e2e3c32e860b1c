#include "text/BasicFormatter.h"

#include <QHash>
#include <QList>
#include <QRegularExpression>
#include <QStringList>
#include <QTextBoundaryFinder>

namespace dictora {

namespace {

// \s, \b and \w must follow Unicode, not just ASCII, as the patterns assume.
QRegularExpression unicodePattern(const char *pattern)
{
    return QRegularExpression(QString::fromUtf8(pattern), QRegularExpression::UseUnicodePropertiesOption);
}

// A pattern that failed to compile leaves the text as it is.
QString replaceAll(const QString &text, const QRegularExpression &re, const QString &replacement)
{
    if (!re.isValid())
        return text;
    QString out = text;
    out.replace(re, replacement);
    return out;
}

QString trimCharacters(const QString &text, QStringView set)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && set.contains(text.at(begin)))
        ++begin;
    while (end > begin && set.contains(text.at(end - 1)))
        --end;
    return text.mid(begin, end - begin);
}

char32_t firstCodePoint(QStringView cluster)
{
    if (cluster.size() >= 2 && cluster.at(0).isHighSurrogate() && cluster.at(1).isLowSurrogate())
        return QChar::surrogateToUcs4(cluster.at(0), cluster.at(1));
    return cluster.at(0).unicode();
}

// Calls visit(cluster) for every grapheme cluster in order; visit returns false to stop.
template <typename Visit>
void forEachGrapheme(const QString &text, Visit visit)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    while (start < text.size()) {
        qsizetype end = finder.toNextBoundary();
        if (end <= start)
            end = text.size(); // no further boundary reported: the rest is one cluster
        if (!visit(QStringView(text).mid(start, end - start), start))
            return;
        start = end;
    }
}

const QHash<QString, int> &numberValues()
{
    static const QHash<QString, int> values{
        {QStringLiteral("one"), 1},   {QStringLiteral("two"), 2},   {QStringLiteral("to"), 2},
        {QStringLiteral("three"), 3}, {QStringLiteral("four"), 4},  {QStringLiteral("five"), 5},
        {QStringLiteral("six"), 6},   {QStringLiteral("seven"), 7}, {QStringLiteral("eight"), 8},
        {QStringLiteral("nine"), 9},  {QStringLiteral("ten"), 10},
    };
    return values;
}

struct ListCandidate {
    qsizetype start = 0; // whole match, in the full text
    qsizetype end = 0;
    QString word;
    int value = 0;
};

constexpr int kMaximumListItems = 10;

} // namespace

std::optional<int> BasicFormatter::numberValue(const QString &word)
{
    const auto it = numberValues().constFind(word);
    if (it == numberValues().constEnd())
        return std::nullopt;
    return *it;
}

QString BasicFormatter::removeFillers(const QString &text)
{
    static const QRegularExpression filler =
        unicodePattern(R"((?i)(?<![\p{L}\p{N}_-])(?:um+|uh+)(?![\p{L}\p{N}_-])(?:\s*[,;:]\s*|\s+|$|(?=[.!?])))");
    return replaceAll(text, filler, QStringLiteral(" "));
}

QString BasicFormatter::normalizeProse(const QString &text)
{
    static const QRegularExpression whitespace = unicodePattern(R"(\s+)");
    static const QRegularExpression am = unicodePattern(R"((?i)\ba\.m\.)");
    static const QRegularExpression pm = unicodePattern(R"((?i)\bp\.m\.)");
    static const QRegularExpression spaceBeforePunctuation = unicodePattern(R"(\s+([,.!?;:]))");
    static const QRegularExpression commaBeforeEnd = unicodePattern(R"(,\s*([.!?]))");
    static const QRegularExpression punctuationTouchingWord = unicodePattern(R"(([,.!?;:])(?=[\p{L}\p{N}]))");
    static const QString amPlaceholder = QStringLiteral("__QZK_AM__");
    static const QString pmPlaceholder = QStringLiteral("__QZK_PM__");

    QString out = replaceAll(text, whitespace, QStringLiteral(" "));
    out = replaceAll(out, am, amPlaceholder);
    out = replaceAll(out, pm, pmPlaceholder);
    out = replaceAll(out, spaceBeforePunctuation, QStringLiteral("\\1"));
    out = replaceAll(out, commaBeforeEnd, QStringLiteral("\\1"));
    out = replaceAll(out, punctuationTouchingWord, QStringLiteral("\\1 "));
    out = capitalizeSentences(out.trimmed());
    out.replace(amPlaceholder, QStringLiteral("a.m."));
    out.replace(pmPlaceholder, QStringLiteral("p.m."));
    return out;
}

QString BasicFormatter::capitalizeSentences(const QString &text)
{
    QString out;
    out.reserve(text.size());
    bool capitalizeNext = true;
    forEachGrapheme(text, [&](QStringView cluster, qsizetype) {
        const char32_t cp = firstCodePoint(cluster);
        const bool letter = QChar::isLetter(cp);
        if (capitalizeNext && letter) {
            out += cluster.toString().toUpper();
            capitalizeNext = false;
        } else {
            out += cluster;
            if (letter || QChar::isNumber(cp))
                capitalizeNext = false;
        }
        if (cluster == u"." || cluster == u"!" || cluster == u"?")
            capitalizeNext = true;
        return true;
    });
    return out;
}

QString BasicFormatter::capitalizeFirstLetter(const QString &text)
{
    QString out = text;
    forEachGrapheme(text, [&](QStringView cluster, qsizetype start) {
        if (!QChar::isLetter(firstCodePoint(cluster)))
            return true;
        out.replace(start, cluster.size(), cluster.toString().toUpper());
        return false;
    });
    return out;
}

std::optional<QString> BasicFormatter::formatExplicitList(const QString &text)
{
    static const QRegularExpression header = unicodePattern(
        R"((?i)(?:\b(?:okay|ok)\s*[,.:]?\s*)?\bhere\s+(?:are|is)\s+(?:(?:some|one|two|three|four|five|six|seven|eight|nine|ten)\s+)?(bullet|numbered)\s+points?\s*[.:,]?\s*)");
    static const QRegularExpression item = unicodePattern(
        R"((?i)(?<!\p{L})(one|two|to|three|four|five|six|seven|eight|nine|ten)(?!\p{L})(?:\s*[,.:)]\s*|\s+))");
    if (!header.isValid() || !item.isValid())
        return std::nullopt;

    const QRegularExpressionMatch headerMatch = header.match(text);
    if (!headerMatch.hasMatch())
        return std::nullopt;
    const QString style =
        headerMatch.capturedStart(1) < 0 ? QStringLiteral("bullet") : headerMatch.captured(1).toLower();
    const qsizetype headerEnd = headerMatch.capturedEnd(0);

    // Matched on the rest alone, so look-behinds cannot see into the header.
    QList<ListCandidate> candidates;
    const QString rest = text.mid(headerEnd);
    for (auto it = item.globalMatch(rest); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        const QString word = m.captured(1).toLower();
        candidates.append({headerEnd + m.capturedStart(0), headerEnd + m.capturedEnd(0), word,
                           numberValue(word).value_or(0)});
    }
    if (candidates.size() < 2)
        return std::nullopt;

    const qsizetype count = candidates.size();
    qsizetype first = -1;
    for (qsizetype i = 0; i < count && first < 0; ++i) {
        if (candidates.at(i).value == 1)
            first = i;
    }
    if (first < 0)
        return std::nullopt;

    QList<qsizetype> selected{first};
    for (int expected = 2;; ++expected) {
        const qsizetype spanBegin = selected.last() + 1;
        qsizetype chosen = -1;
        for (qsizetype i = spanBegin; i < count && candidates.at(i).value <= expected; ++i) {
            if (candidates.at(i).value != expected)
                continue;
            if (chosen < 0)
                chosen = i;
            // Where a 2 is expected, a real "two" beats an earlier "to".
            if (expected == 2 && candidates.at(i).word == u"two") {
                chosen = i;
                break;
            }
            if (expected != 2)
                break;
        }
        if (chosen < 0)
            break;
        selected.append(chosen);
        if (chosen == count - 1 || expected == kMaximumListItems)
            break;
    }
    if (selected.size() < 2)
        return std::nullopt;

    if (!text.mid(headerEnd, candidates.at(selected.first()).start - headerEnd).trimmed().isEmpty())
        return std::nullopt;

    QStringList items;
    for (qsizetype k = 0; k < selected.size(); ++k) {
        const qsizetype from = candidates.at(selected.at(k)).end;
        const qsizetype to = k + 1 < selected.size() ? candidates.at(selected.at(k + 1)).start : text.size();
        items.append(text.mid(from, to - from));
    }

    QString trailing;
    QString &last = items.last();
    for (qsizetype i = 0; i < last.size(); ++i) {
        const QChar c = last.at(i);
        if (c == u'.' || c == u'!' || c == u'?') {
            trailing = normalizeProse(last.mid(i + 1));
            last.truncate(i);
            break;
        }
    }

    static constexpr QStringView itemEdges = u" \t\n\r,.;:!?";
    QString itemBlock;
    for (qsizetype k = 0; k < items.size(); ++k) {
        const QString cleaned = capitalizeFirstLetter(trimCharacters(normalizeProse(items.at(k)), itemEdges));
        if (cleaned.isEmpty())
            return std::nullopt;
        if (k > 0)
            itemBlock += u'\n';
        itemBlock += QString::number(k + 1) + QStringLiteral(". ") + cleaned;
    }

    QStringList blocks;
    const QString leading = normalizeProse(text.left(headerMatch.capturedStart(0)));
    if (!leading.isEmpty())
        blocks.append(leading);
    blocks.append(QStringLiteral("Here are some %1 points:").arg(style));
    blocks.append(itemBlock);
    if (!trailing.isEmpty())
        blocks.append(trailing);
    return blocks.join(QStringLiteral("\n\n"));
}

QString BasicFormatter::format(const QString &raw)
{
    const QString prose = normalizeProse(removeFillers(raw));
    if (prose.isEmpty())
        return QString();
    return formatExplicitList(prose).value_or(prose);
}

QString BasicFormatter::formatTranscript(const QString &raw, bool formattingEnabled, const QString &language)
{
    if (!formattingEnabled)
        return raw.trimmed();
    if (language.isEmpty() || language == QLatin1String("en"))
        return format(raw);
    return normalizeSpacing(raw);
}

QString BasicFormatter::normalizeSpacing(const QString &text)
{
    // Only what every language agrees on: French, for one, spaces before ! ? : ;
    // and digits may take a decimal comma.
    static const QRegularExpression whitespace = unicodePattern(R"(\s+)");
    static const QRegularExpression spaceBeforeCommaOrStop = unicodePattern(R"(\s+([,.]))");
    static const QRegularExpression commaTouchingWord = unicodePattern(R"(,(?=\p{L}))");
    QString out = replaceAll(text, whitespace, QStringLiteral(" "));
    out = replaceAll(out, spaceBeforeCommaOrStop, QStringLiteral("\\1"));
    out = replaceAll(out, commaTouchingWord, QStringLiteral(", "));
    return out.trimmed();
}

} // namespace dictora
