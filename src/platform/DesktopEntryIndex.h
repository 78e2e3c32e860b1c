#pragma once

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

    explicit DesktopEntryIndex(QStringList directories = applicationDirectories());

    std::optional<QString> nameForWindow(const QString &windowClass,
                                         const QString &instanceName = {}) const;

private:
    struct Entry {
        QString name;
        QString startupWMClass;
    };
    void load() const;

    QStringList m_directories;
    mutable bool m_loaded = false;
    mutable QHash<QString, Entry> m_byFileId; // lower-cased id without ".desktop"
    mutable QHash<QString, QString> m_byWMClass; // exact StartupWMClass -> name
    mutable QHash<QString, QString> m_byWMClassFolded;
};

} // namespace dictora
