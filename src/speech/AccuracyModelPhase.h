#pragma once

#include <QMetaType>
#include <QString>

namespace dictora {

// Where preparation of the mandatory model stands. Dictation needs `ready`.
class AccuracyModelPhase {
public:
    enum class Kind { checking, copyingBundledDevelopmentAsset, downloading, verifying, loading, ready, retrying, needsAttention };

    AccuracyModelPhase() = default;
    static AccuracyModelPhase checking() { return AccuracyModelPhase(Kind::checking); }
    static AccuracyModelPhase copyingBundledDevelopmentAsset() { return AccuracyModelPhase(Kind::copyingBundledDevelopmentAsset); }
    static AccuracyModelPhase downloading() { return AccuracyModelPhase(Kind::downloading); }
    static AccuracyModelPhase verifying() { return AccuracyModelPhase(Kind::verifying); }
    static AccuracyModelPhase loading() { return AccuracyModelPhase(Kind::loading); }
    static AccuracyModelPhase ready() { return AccuracyModelPhase(Kind::ready); }
    static AccuracyModelPhase retrying(const QString &message) { return AccuracyModelPhase(Kind::retrying, message); }
    static AccuracyModelPhase needsAttention(const QString &message) { return AccuracyModelPhase(Kind::needsAttention, message); }

    Kind kind() const { return m_kind; }
    QString message() const { return m_message; } // retrying and needsAttention only
    bool isReady() const { return m_kind == Kind::ready; }
    QString statusText() const;
    QString rawValue() const; // "checking", "retrying", …

    friend bool operator==(const AccuracyModelPhase &, const AccuracyModelPhase &) = default;

private:
    explicit AccuracyModelPhase(Kind kind, QString message = {}) : m_kind(kind), m_message(std::move(message)) { }
    Kind m_kind = Kind::checking;
    QString m_message;
};

} // namespace dictora

Q_DECLARE_METATYPE(dictora::AccuracyModelPhase)
