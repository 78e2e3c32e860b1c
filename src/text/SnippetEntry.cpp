#include "text/SnippetEntry.h"

#include <QRegularExpression>

namespace dictora {

namespace {
const QString kId = QStringLiteral("id");
const QString kTrigger = QStringLiteral("trigger");
const QString kExpansion = QStringLiteral("expansion");

std::optional<QUuid> parseUuid(const QString &text)
{
    // QUuid also takes braces and reads garbage as the nil UUID; accept only the canonical form.
    static const QRegularExpression canonical(
        QStringLiteral("\\A[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}\\z"));
    if (!canonical.match(text).hasMatch())
        return std::nullopt;
    return QUuid::fromString(text);
}
} // namespace

SnippetEntry SnippetEntry::create(const QString &trigger, const QString &expansion)
{
    return SnippetEntry{QUuid::createUuid(), trigger, expansion};
}

QJsonObject SnippetEntry::toJson() const
{
    return QJsonObject{
        {kExpansion, expansion},
        {kId, id.toString(QUuid::WithoutBraces).toUpper()},
        {kTrigger, trigger},
    };
}

std::optional<SnippetEntry> SnippetEntry::fromJson(const QJsonObject &object)
{
    const QJsonValue id = object.value(kId);
    const QJsonValue trigger = object.value(kTrigger);
    const QJsonValue expansion = object.value(kExpansion);
    if (!id.isString() || !trigger.isString() || !expansion.isString())
        return std::nullopt;
    const auto uuid = parseUuid(id.toString());
    if (!uuid)
        return std::nullopt;
    return SnippetEntry{*uuid, trigger.toString(), expansion.toString()};
}

} // namespace dictora
