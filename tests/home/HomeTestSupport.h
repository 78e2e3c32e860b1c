#pragma once

#include "history/HistoryStore.h"
#include "history/HistoryTestRecords.h"
#include "history/TranscriptJournal.h"

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QSignalSpy>
#include <QThreadPool>
#include <QtTest>

namespace dictora::test {

inline TranscriptRecord homeRecord(const QDateTime &savedAt, const QString &text, const QString &app = QStringLiteral("Editor"))
{
    TranscriptRecord r = recordSavedAt(savedAt, text);
    if (!app.isEmpty())
        r.targetApplication = TargetApplication{app, QStringLiteral("org.example.") + app.toLower(), 4242};
    r.earsDurationMilliseconds = 812;
    r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
    return r;
}

inline void writeJournal(const QString &path, const QList<TranscriptRecord> &records)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    for (const TranscriptRecord &r : records)
        file.write(r.toJsonLine() + '\n');
}

// Starts a reload and waits until the store has applied it.
inline bool reloadAndWait(HistoryStore &store)
{
    QSignalSpy reloaded(&store, &HistoryStore::reloaded);
    store.reload();
    return reloaded.wait(10000);
}

// The visible top-level dialog of that type and object name, if any.
template<typename T>
T *visibleDialog(const QString &objectName)
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (auto *d = qobject_cast<T *>(w); d && d->isVisible() && d->objectName() == objectName)
            return d;
    }
    return nullptr;
}

} // namespace dictora::test
