#include "history/TranscriptPresentation.h"

#include <QRegularExpression>
#include <QStringList>

#include <cmath>

namespace dictora::TranscriptPresentation {

QString rowPreview(const QString &text, int leadingWordCount, int trailingWordCount)
{
    static const QRegularExpression whitespace(QStringLiteral("\\s+"),
        QRegularExpression::UseUnicodePropertiesOption);
    const QStringList words = text.split(whitespace, Qt::SkipEmptyParts);
    if (qsizetype(leadingWordCount) + trailingWordCount >= words.size())
        return words.join(QLatin1Char(' '));
    return words.mid(0, leadingWordCount).join(QLatin1Char(' ')) + QStringLiteral(" \u2026 ")
        + words.mid(words.size() - trailingWordCount).join(QLatin1Char(' '));
}

QString durationLabel(std::int64_t milliseconds)
{
    // Nearest whole second, halves away from zero.
    std::int64_t seconds = static_cast<std::int64_t>(std::llround(double(milliseconds) / 1000.0));
    if (seconds < 0)
        seconds = 0;
    if (seconds < 60)
        return QStringLiteral("%1s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1m %2s").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1h %2m").arg(seconds / 3600).arg((seconds % 3600) / 60, 2, 10, QLatin1Char('0'));
}

} // namespace dictora::TranscriptPresentation
