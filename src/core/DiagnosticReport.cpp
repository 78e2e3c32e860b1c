#include "core/DiagnosticReport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace dictora {

namespace {
const DiagnosticCheck::Status kStatuses[] = {DiagnosticCheck::Status::ok, DiagnosticCheck::Status::warning,
    DiagnosticCheck::Status::failed};
}

QString rawValue(DiagnosticCheck::Status status)
{
    switch (status) {
    case DiagnosticCheck::Status::ok: return QStringLiteral("ok");
    case DiagnosticCheck::Status::warning: return QStringLiteral("warning");
    case DiagnosticCheck::Status::failed: return QStringLiteral("failed");
    }
    return {};
}

bool DiagnosticReport::dictationWorks() const
{
    for (const DiagnosticCheck &check : checks)
        if (check.required && check.status == DiagnosticCheck::Status::failed)
            return false;
    return !checks.isEmpty();
}

QByteArray DiagnosticReport::toJson() const
{
    QJsonArray list;
    for (const DiagnosticCheck &check : checks) {
        list.append(QJsonObject{{QStringLiteral("id"), check.id}, {QStringLiteral("title"), check.title},
            {QStringLiteral("mechanism"), check.mechanism}, {QStringLiteral("status"), rawValue(check.status)},
            {QStringLiteral("detail"), check.detail}, {QStringLiteral("advice"), check.advice},
            {QStringLiteral("required"), check.required}});
    }
    const QJsonObject root{{QStringLiteral("dictationWorks"), dictationWorks()}, {QStringLiteral("checks"), list}};
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

std::optional<DiagnosticReport> DiagnosticReport::fromJson(const QByteArray &json)
{
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject() || !document.object().value(QLatin1String("checks")).isArray())
        return std::nullopt;
    DiagnosticReport report;
    for (const QJsonValue &value : document.object().value(QLatin1String("checks")).toArray()) {
        const QJsonObject o = value.toObject();
        DiagnosticCheck check;
        check.id = o.value(QLatin1String("id")).toString();
        check.title = o.value(QLatin1String("title")).toString();
        check.mechanism = o.value(QLatin1String("mechanism")).toString();
        check.detail = o.value(QLatin1String("detail")).toString();
        check.advice = o.value(QLatin1String("advice")).toString();
        check.required = o.value(QLatin1String("required")).toBool(true);
        const QString status = o.value(QLatin1String("status")).toString();
        bool known = false;
        for (DiagnosticCheck::Status s : kStatuses) {
            if (rawValue(s) == status) {
                check.status = s;
                known = true;
            }
        }
        if (check.id.isEmpty() || !known)
            return std::nullopt;
        report.checks.append(check);
    }
    return report;
}

QString DiagnosticReport::toText() const
{
    QString text;
    for (const DiagnosticCheck &check : checks) {
        const QString mark = check.status == DiagnosticCheck::Status::ok        ? QStringLiteral("ok  ")
                             : check.status == DiagnosticCheck::Status::warning ? QStringLiteral("warn")
                                                                                : QStringLiteral("FAIL");
        text += QStringLiteral("[%1] %2").arg(mark, check.title);
        if (!check.mechanism.isEmpty())
            text += QStringLiteral(" (%1)").arg(check.mechanism);
        text += QStringLiteral(": %1\n").arg(check.detail);
        if (!check.advice.isEmpty())
            text += QStringLiteral("       what to do: %1\n").arg(check.advice);
    }
    text += dictationWorks() ? QStringLiteral("\nDictation works on this desktop.\n")
                             : QStringLiteral("\nDictation cannot work until the failures above are fixed.\n");
    return text;
}

} // namespace dictora
