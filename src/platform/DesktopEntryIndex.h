#pragma once

#include <QFuture>
#include <QHash>
#include <QString>
#include <QStringList>

#include <optional>

namespace dictora {

// Finds an application's display name from the desktop entries installed in
// the XDG data folders, by its window class: an entry whose StartupWMClass is
// that class, else an entry whose file name is the class or instance name.
class DesktopEntryIndex {
public:
    // $XDG_DATA_HOME/applications, then each $XDG_DATA_DIRS entry's
    // applications folder; earlier folders win, as for desktop file ids.
    static QStringList applicationDirectories();

    // The folders are read on the thread pool from here on: hundreds of
    // files, which the first target capture on the GUI thread must not wait for.
    explicit DesktopEntryIndex(QStringList directories = applicationDirectories());

    // Nothing until the folders have been read (never waits for them).
    std::optional<QString> nameForWindow(const QString &windowClass,
                                         const QString &instanceName = {}) const;

    // For callers that may wait (tests, threads of their own).
    void waitUntilRead() const { QFuture<Tables>(m_tables).waitForFinished(); }

private:
    struct Entry {
        QString name;
        QString startupWMClass;
    };
    struct Tables {
        QHash<QString, Entry> byFileId; // lower-cased id without ".desktop"
        QHash<QString, QString> byWMClass; // exact StartupWMClass -> name
        QHash<QString, QString> byWMClassFolded;
    };
    static Tables read(const QStringList &directories);

    QFuture<Tables> m_tables;
};

} // namespace dictora
