#pragma once

#include "core/RuntimeLog.h"
#include "history/TranscriptJournal.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace dictora {

class PasteService;

// A saved dictation again: pasted into the window that has the focus now, or
// put on the clipboard. Serves the tray, `dictora paste-last`/`copy-last` and
// History. The journal is read off this thread; the paste goes the way every
// dictation's does.
class LastDictation : public QObject {
    Q_OBJECT
public:
    // Empty: done. Otherwise what to tell the user.
    using Done = std::function<void(const QString &error)>;

    LastDictation(TranscriptJournal journal, PasteService &paste, const RuntimeLog &log, QObject *parent = nullptr);

    void pasteLast(Done done);
    void copyLast(Done done);
    // A chosen record, into whatever window takes the focus within
    // focusWaitMs (History hides itself first).
    void paste(const TranscriptRecord &record, Done done);

    // The newest record, also one still waiting for the journal to take it.
    static std::optional<TranscriptRecord> newest(const TranscriptJournal &journal);
    // Why this record has nothing to paste or copy; empty when it has.
    static QString whyNothingToUse(const std::optional<TranscriptRecord> &record);

    int focusWaitMs = 1500;

private:
    void withNewest(std::function<void(std::optional<TranscriptRecord>)> use);
    void pasteWhenFocused(QString text, int attemptsLeft, Done done);

    TranscriptJournal m_journal;
    PasteService &m_paste;
    const RuntimeLog &m_log;
};

} // namespace dictora
