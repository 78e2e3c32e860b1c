#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QUuid>

#include <cstdint>
#include <optional>

namespace dictora {

enum class TranscriptOutcome { pasted, practice, empty, failed, recovered };

QString rawValue(TranscriptOutcome outcome);
// Exact, case-sensitive match of one of the five raw values.
std::optional<TranscriptOutcome> transcriptOutcomeFromRaw(const QString &raw);

struct TargetApplication {
    QString name;
    std::optional<QString> bundleIdentifier; // the window class on X11
    std::int32_t processIdentifier = 0;

    friend bool operator==(const TargetApplication &, const TargetApplication &) = default;
};

// One finished dictation. Dates are kept to the millisecond, which is what
// the journal stores.
struct TranscriptRecord {
    QUuid id;
    QDateTime recordingStartedAt;
    QDateTime recordingEndedAt;
    QDateTime savedAt;
    std::optional<TargetApplication> targetApplication;
    QString transcript;
    std::int64_t recordingDurationMilliseconds = 0;
    std::int64_t finalizationDurationMilliseconds = 0;
    std::int64_t pasteDispatchDurationMilliseconds = 0;
    std::int64_t totalDurationMilliseconds = 0;
    TranscriptOutcome outcome = TranscriptOutcome::empty;
    std::optional<QString> error;
    std::optional<std::int64_t> earsDurationMilliseconds;
    std::optional<QString> transcriptionEngine;
    std::optional<QString> language; // recognition's language code; absent in older records

    friend bool operator==(const TranscriptRecord &, const TranscriptRecord &) = default;

    // One line of the journal: keys sorted, no spaces, "/" unescaped, UUID in
    // upper case, dates as milliseconds since 1970, absent optionals omitted.
    QByteArray toJsonLine() const;
    // Required keys must be present with the right type; optional keys may be
    // missing or null; unknown keys are ignored.
    static std::optional<TranscriptRecord> fromJson(const QByteArray &json);
    static std::optional<TranscriptRecord> fromJsonObject(const QJsonObject &object);
};

// Canonical upper-case hyphenated form.
QString uuidString(const QUuid &id);

} // namespace dictora
