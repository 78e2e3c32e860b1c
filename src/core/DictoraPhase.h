#pragma once

#include <QMetaType>
#include <QString>

namespace dictora {

class DictoraPhase {
public:
    enum class Kind { error, idle, preparing, recording, finalizing, needsAccessibility };

    DictoraPhase() = default;
    static DictoraPhase idle() { return DictoraPhase(Kind::idle); }
    static DictoraPhase preparing() { return DictoraPhase(Kind::preparing); }
    static DictoraPhase recording() { return DictoraPhase(Kind::recording); }
    static DictoraPhase finalizing() { return DictoraPhase(Kind::finalizing); }
    static DictoraPhase needsAccessibility() { return DictoraPhase(Kind::needsAccessibility); }
    static DictoraPhase error(const QString &message) { return DictoraPhase(Kind::error, message); }

    Kind kind() const { return m_kind; }
    bool is(Kind k) const { return m_kind == k; }
    // Empty unless the phase is an error.
    QString message() const { return m_message; }
    // The user-facing description; also the indicator's accessible name.
    QString label() const;
    // The kind as the log and the tests spell it.
    static QString name(Kind kind);

    friend bool operator==(const DictoraPhase &, const DictoraPhase &) = default;

private:
    explicit DictoraPhase(Kind k, QString message = {}) : m_kind(k), m_message(std::move(message)) {}
    Kind m_kind = Kind::idle;
    QString m_message;
};

} // namespace dictora

Q_DECLARE_METATYPE(dictora::DictoraPhase)
