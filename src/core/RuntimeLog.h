#pragma once

#include <QMutex>
#include <QString>

namespace dictora {

// One line per event in runtime.log: "[" ISO 8601 UTC "] " message. Never
// throws; a failed write goes to standard error and is not retried.
class RuntimeLog {
public:
    explicit RuntimeLog(QString filePath);

    void write(const QString &message) const;
    QString filePath() const { return m_filePath; }

    static QString lineFor(const QString &message);

private:
    QString m_filePath;
    mutable QMutex m_mutex; // capture and network threads log too
};

} // namespace dictora
