#pragma once

#include "platform/DesktopEntryIndex.h"
#include "platform/WindowTracker.h"

#include <QDBusConnection>
#include <QHash>
#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class QDBusServiceWatcher;

namespace dictora::kde {

class KWinReports;

// The focused window on KDE Plasma. KWin runs a small script of ours that
// calls back into this process whenever the active window changes; queries
// answer from the last report and never wait on KWin. Activation loads a
// one-off script that activates the window by KWin's id and unloads itself.
class KWinWindowTracker final : public WindowTracker {
public:
    explicit KWinWindowTracker(QDBusConnection bus = QDBusConnection::sessionBus());
    ~KWinWindowTracker() override;

    // False when KWin is not on the bus or would not load the script.
    bool isUsable() const { return m_failure.isEmpty(); }
    QString failureReason() const { return m_failure; }
    // The plugin name KWin knows our script by; activation scripts add "-activate-N".
    QString scriptName() const { return m_trackerName; }

    std::optional<FrontmostWindow> frontmostWindow() override;
    bool isActive(WindowHandle window) override;
    void requestActivation(WindowHandle window) override;

private:
    // "<runtime dir>/dictora-kwin-<pid>-XXXXXX"; folders of processes that
    // died without cleaning up are removed first.
    static QString scriptFolderTemplate();
    friend class KWinReports;
    struct Report {
        QString id; // KWin's internal id; empty when no window is active
        QString desktopFileName;
        QString resourceClass;
        QString resourceName;
        qint32 pid = 0;
    };
    void onActiveWindow(const Report &report);
    void onActivationDone(const QString &pluginName);
    bool loadTrackerScript(bool wait);
    QString writeScript(const QString &name, const QString &body);
    void unloadScript(const QString &pluginName, bool wait = false);
    QString scriptHeader() const;

    QDBusConnection m_bus;
    QString m_objectPath;
    QString m_trackerName;
    QString m_failure;
    QTemporaryDir m_scripts{scriptFolderTemplate()};
    std::unique_ptr<KWinReports> m_reports;
    std::unique_ptr<QDBusServiceWatcher> m_kwinWatcher;
    QStringList m_pendingActivations;
    int m_scriptCount = 0;
    DesktopEntryIndex m_desktopEntries;

    mutable QMutex m_mutex; // guards what follows
    Report m_active;
    QHash<QString, quint64> m_handles; // KWin id -> our handle
    QHash<quint64, QString> m_ids;
    quint64 m_nextHandle = 1;
};

} // namespace dictora::kde
