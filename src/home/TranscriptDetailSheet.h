#pragma once

#include "history/TranscriptRecord.h"

#include <QDialog>

class QPushButton;
class QTimer;

namespace dictora {

// One record in full: times, application, durations and the selectable
// transcript, with a copy button. Escape or "Done" dismisses it.
class TranscriptDetailSheet : public QDialog {
    Q_OBJECT
public:
    explicit TranscriptDetailSheet(const TranscriptRecord &record, QWidget *parent = nullptr);

    const TranscriptRecord &record() const { return m_record; }
    QPushButton *copyButton() const { return m_copy; }
    QPushButton *doneButton() const { return m_done; }

Q_SIGNALS:
    // "Paste Again": the sheet closes, whoever listens pastes the record.
    void pasteRequested(const dictora::TranscriptRecord &record);

private:
    void copy();

    TranscriptRecord m_record;
    QPushButton *m_copy;
    QPushButton *m_done;
    QPushButton *m_paste;
    QTimer *m_copiedTimer;
};

} // namespace dictora
