#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace dictora {

// What `dictora doctor` and the Diagnostics sheet show: one line per part
// of a dictation, whether it works now, and what to do when it does not.
struct DiagnosticCheck {
    enum class Status { ok, warning, failed };

    QString id;        // "shortcut", "microphone", ... (stable, for scripts)
    QString title;     // "Shortcut"
    QString mechanism; // what serves it on this desktop; may be empty
    Status status = Status::ok;
    QString detail;    // what was found
    QString advice;    // what to do; empty when it works
    bool required = true; // a dictation cannot work without it

    friend bool operator==(const DiagnosticCheck &, const DiagnosticCheck &) = default;
};

QString rawValue(DiagnosticCheck::Status status);

struct DiagnosticReport {
    QList<DiagnosticCheck> checks;

    // Every check a dictation needs passes (warnings do not count against it).
    bool dictationWorks() const;
    // One JSON object: {"dictationWorks":…, "checks":[{…}, …]}, on one line.
    QByteArray toJson() const;
    static std::optional<DiagnosticReport> fromJson(const QByteArray &json);
    // For a terminal: one block per check, then the verdict.
    QString toText() const;

    friend bool operator==(const DiagnosticReport &, const DiagnosticReport &) = default;
};

} // namespace dictora
