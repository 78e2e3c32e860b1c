#pragma once

#include "text/SnippetEntry.h"

#include <QByteArray>
#include <QObject>

namespace dictora {

// The user's snippet list, persisted as a JSON array in `snippets.json`.
// Main thread only. Every change saves the whole list atomically at once.
//
// A file that cannot be read or decoded gives an empty list; it is never
// touched on read, and before the first save replaces it, it is kept beside
// it as "snippets.json.unreadable-<time>" so nothing the user wrote is lost.
class SnippetStore : public QObject {
    Q_OBJECT

public:
    struct LoadResult {
        SnippetEntries entries;
        // Why an existing file was not used (empty when it was read, or absent).
        QString problem;
    };

    explicit SnippetStore(const QString &fileName, QObject *parent = nullptr);

    const SnippetEntries &entries() const { return m_entries; }
    QString fileName() const { return m_fileName; }
    QString loadProblem() const { return m_loadProblem; }
    // The reason the last save failed, or empty. Save failures are otherwise silent.
    QString lastSaveError() const { return m_lastSaveError; }

    void setEntries(const SnippetEntries &entries);
    // Appends a new, empty entry with a fresh id and returns it.
    SnippetEntry add();
    // Removes every entry with that entry's id (saving even when none matched).
    void remove(const SnippetEntry &entry);
    // Edits one field of the entry with this id; false when there is none.
    bool setTrigger(const QUuid &id, const QString &trigger);
    bool setExpansion(const QUuid &id, const QString &expansion);

    static LoadResult load(const QString &fileName);
    // Pretty-printed array, keys sorted (expansion, id, trigger).
    static QByteArray encode(const SnippetEntries &entries);
    // nullopt when the bytes are not an array of complete entries; *problem says why.
    static std::optional<SnippetEntries> decode(const QByteArray &json, QString *problem = nullptr);

Q_SIGNALS:
    void entriesChanged();

private:
    void changed();
    void save();
    void setAsideUnreadableFile();

    QString m_fileName;
    SnippetEntries m_entries;
    QString m_loadProblem;
    QString m_lastSaveError;
    bool m_keepUnreadableFile = false;
};

} // namespace dictora
