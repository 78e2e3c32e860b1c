#pragma once

#include <QLoggingCategory>
#include <QMutex>
#include <QString>

namespace dictora {

// One category per subsystem. Information and above reach runtime.log once a
// log is installed; debug output is off unless QT_LOGGING_RULES turns it on
// (for example QT_LOGGING_RULES="dictora.*.debug=true").
Q_DECLARE_LOGGING_CATEGORY(lcSession)
Q_DECLARE_LOGGING_CATEGORY(lcHistory)
Q_DECLARE_LOGGING_CATEGORY(lcSpeech)
Q_DECLARE_LOGGING_CATEGORY(lcAudio)
Q_DECLARE_LOGGING_CATEGORY(lcText)
Q_DECLARE_LOGGING_CATEGORY(lcShortcut)
Q_DECLARE_LOGGING_CATEGORY(lcPlatform)
Q_DECLARE_LOGGING_CATEGORY(lcOverlay)
Q_DECLARE_LOGGING_CATEGORY(lcOnboarding)

// One line per event in runtime.log: "[" ISO 8601 UTC "] " message. The file
// stays open between lines (reopened when it was deleted underneath); every
// thread may write. Never throws; a failed write goes to standard error and
// is not retried.
class RuntimeLog {
public:
    explicit RuntimeLog(QString filePath);
    ~RuntimeLog();
    RuntimeLog(const RuntimeLog &) = delete;
    RuntimeLog &operator=(const RuntimeLog &) = delete;

    void write(const QString &message) const;
    QString filePath() const { return m_filePath; }

    static QString lineFor(const QString &message);

    // Makes this log the destination of the dictora.* categories for as long
    // as it lives; other categories keep Qt's own handling.
    void install();

private:
    bool reopen() const;

    QString m_filePath;
    mutable QMutex m_mutex; // capture and network threads log too
    mutable int m_fd = -1;
};

} // namespace dictora
