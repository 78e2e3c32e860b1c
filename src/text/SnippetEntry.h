#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

namespace dictora {

// One user snippet: saying `trigger` pastes `expansion` in its place.
struct SnippetEntry {
    QUuid id;
    QString trigger;
    QString expansion;

    static SnippetEntry create(const QString &trigger = {}, const QString &expansion = {});

    // {"expansion":…,"id":"UPPER-CASE-UUID","trigger":…}
    QJsonObject toJson() const;
    // Every key is required and must be a string; `id` must be a canonical UUID.
    static std::optional<SnippetEntry> fromJson(const QJsonObject &object);

    friend bool operator==(const SnippetEntry &, const SnippetEntry &) = default;
};

using SnippetEntries = QList<SnippetEntry>;

} // namespace dictora
