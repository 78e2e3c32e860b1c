#include "history/TranscriptRecord.h"

#include "history/JsonText.h"

#include <QJsonDocument>
#include <QJsonValue>

#include <cmath>

namespace dictora {

namespace {

constexpr double kMaxExactInteger = 9007199254740992.0; // 2^53

std::optional<std::int64_t> integerValue(const QJsonValue &v)
{
    if (!v.isDouble())
        return std::nullopt;
    const double d = v.toDouble();
    if (!std::isfinite(d) || std::trunc(d) != d || std::fabs(d) > kMaxExactInteger)
        return std::nullopt;
    return static_cast<std::int64_t>(d);
}

std::optional<QDateTime> dateValue(const QJsonValue &v)
{
    if (!v.isDouble())
        return std::nullopt;
    const double ms = v.toDouble();
    if (!std::isfinite(ms) || std::fabs(ms) > 8.64e15)
        return std::nullopt;
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(std::floor(ms)), Qt::UTC);
}

// JSON may escape half of a surrogate pair ("\ud800"); no UTF-8 can carry it,
// so written back it would read differently and an archive of it would never
// verify. It becomes U+FFFD, as any undecodable text does.
QString textValue(const QJsonValue &v)
{
    QString text = v.toString();
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate())
            ++i;
        else if (c.isSurrogate())
            text[i] = QChar::ReplacementCharacter;
    }
    return text;
}

bool isAbsent(const QJsonValue &v) { return v.isUndefined() || v.isNull(); }

void appendKey(QByteArray &out, const char *key)
{
    if (out.size() > 1)
        out.append(',');
    out.append('"').append(key).append("\":");
}

} // namespace

QString rawValue(TranscriptOutcome outcome)
{
    switch (outcome) {
    case TranscriptOutcome::pasted: return QStringLiteral("pasted");
    case TranscriptOutcome::practice: return QStringLiteral("practice");
    case TranscriptOutcome::empty: return QStringLiteral("empty");
    case TranscriptOutcome::failed: return QStringLiteral("failed");
    case TranscriptOutcome::recovered: return QStringLiteral("recovered");
    }
    return {};
}

std::optional<TranscriptOutcome> transcriptOutcomeFromRaw(const QString &raw)
{
    for (auto o : {TranscriptOutcome::pasted, TranscriptOutcome::practice, TranscriptOutcome::empty,
             TranscriptOutcome::failed, TranscriptOutcome::recovered})
        if (rawValue(o) == raw)
            return o;
    return std::nullopt;
}

QString uuidString(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QByteArray TranscriptRecord::toJsonLine() const
{
    // Keys in ascending order, written directly rather than sorted at run time.
    QByteArray out;
    out.reserve(384 + transcript.size() * 2);
    out.append('{');
    const auto number = [&](const char *key, std::int64_t value) {
        appendKey(out, key);
        out.append(QByteArray::number(static_cast<qlonglong>(value)));
    };
    const auto text = [&](const char *key, const QString &value) {
        appendKey(out, key);
        JsonText::appendString(out, value);
    };
    if (earsDurationMilliseconds)
        number("earsDurationMilliseconds", *earsDurationMilliseconds);
    if (error)
        text("error", *error);
    number("finalizationDurationMilliseconds", finalizationDurationMilliseconds);
    text("id", uuidString(id));
    if (language)
        text("language", *language);
    text("outcome", rawValue(outcome));
    number("pasteDispatchDurationMilliseconds", pasteDispatchDurationMilliseconds);
    number("recordingDurationMilliseconds", recordingDurationMilliseconds);
    number("recordingEndedAt", recordingEndedAt.toMSecsSinceEpoch());
    number("recordingStartedAt", recordingStartedAt.toMSecsSinceEpoch());
    number("savedAt", savedAt.toMSecsSinceEpoch());
    if (targetApplication) {
        appendKey(out, "targetApplication");
        out.append('{');
        if (targetApplication->bundleIdentifier) {
            out.append("\"bundleIdentifier\":");
            JsonText::appendString(out, *targetApplication->bundleIdentifier);
            out.append(',');
        }
        out.append("\"name\":");
        JsonText::appendString(out, targetApplication->name);
        out.append(",\"processIdentifier\":").append(QByteArray::number(targetApplication->processIdentifier));
        out.append('}');
    }
    number("totalDurationMilliseconds", totalDurationMilliseconds);
    text("transcript", transcript);
    if (transcriptionEngine)
        text("transcriptionEngine", *transcriptionEngine);
    out.append('}');
    return out;
}

std::optional<TranscriptRecord> TranscriptRecord::fromJson(const QByteArray &json)
{
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    return fromJsonObject(doc.object());
}

std::optional<TranscriptRecord> TranscriptRecord::fromJsonObject(const QJsonObject &o)
{
    TranscriptRecord r;

    const QJsonValue id = o.value(QLatin1String("id"));
    if (!id.isString())
        return std::nullopt;
    const QString idText = id.toString();
    r.id = QUuid::fromString(idText);
    if (idText.size() != 36 || r.id.isNull())
        return std::nullopt;

    const auto started = dateValue(o.value(QLatin1String("recordingStartedAt")));
    const auto ended = dateValue(o.value(QLatin1String("recordingEndedAt")));
    const auto saved = dateValue(o.value(QLatin1String("savedAt")));
    if (!started || !ended || !saved)
        return std::nullopt;
    r.recordingStartedAt = *started;
    r.recordingEndedAt = *ended;
    r.savedAt = *saved;

    const QJsonValue transcript = o.value(QLatin1String("transcript"));
    if (!transcript.isString())
        return std::nullopt;
    r.transcript = textValue(transcript);

    const auto recording = integerValue(o.value(QLatin1String("recordingDurationMilliseconds")));
    const auto finalization = integerValue(o.value(QLatin1String("finalizationDurationMilliseconds")));
    const auto paste = integerValue(o.value(QLatin1String("pasteDispatchDurationMilliseconds")));
    const auto total = integerValue(o.value(QLatin1String("totalDurationMilliseconds")));
    if (!recording || !finalization || !paste || !total)
        return std::nullopt;
    r.recordingDurationMilliseconds = *recording;
    r.finalizationDurationMilliseconds = *finalization;
    r.pasteDispatchDurationMilliseconds = *paste;
    r.totalDurationMilliseconds = *total;

    const QJsonValue outcome = o.value(QLatin1String("outcome"));
    if (!outcome.isString())
        return std::nullopt;
    const auto parsedOutcome = transcriptOutcomeFromRaw(outcome.toString());
    if (!parsedOutcome)
        return std::nullopt;
    r.outcome = *parsedOutcome;

    const QJsonValue target = o.value(QLatin1String("targetApplication"));
    if (!isAbsent(target)) {
        if (!target.isObject())
            return std::nullopt;
        const QJsonObject t = target.toObject();
        const QJsonValue name = t.value(QLatin1String("name"));
        const auto pid = integerValue(t.value(QLatin1String("processIdentifier")));
        if (!name.isString() || !pid || *pid < INT32_MIN || *pid > INT32_MAX)
            return std::nullopt;
        TargetApplication app{textValue(name), std::nullopt, static_cast<std::int32_t>(*pid)};
        const QJsonValue bundle = t.value(QLatin1String("bundleIdentifier"));
        if (!isAbsent(bundle)) {
            if (!bundle.isString())
                return std::nullopt;
            app.bundleIdentifier = textValue(bundle);
        }
        r.targetApplication = app;
    }

    const QJsonValue error = o.value(QLatin1String("error"));
    if (!isAbsent(error)) {
        if (!error.isString())
            return std::nullopt;
        r.error = textValue(error);
    }
    const QJsonValue ears = o.value(QLatin1String("earsDurationMilliseconds"));
    if (!isAbsent(ears)) {
        const auto value = integerValue(ears);
        if (!value)
            return std::nullopt;
        r.earsDurationMilliseconds = *value;
    }
    const QJsonValue language = o.value(QLatin1String("language"));
    if (!isAbsent(language)) {
        if (!language.isString())
            return std::nullopt;
        r.language = textValue(language);
    }
    const QJsonValue engine = o.value(QLatin1String("transcriptionEngine"));
    if (!isAbsent(engine)) {
        if (!engine.isString())
            return std::nullopt;
        r.transcriptionEngine = textValue(engine);
    }
    return r;
}

} // namespace dictora
