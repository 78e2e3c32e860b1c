#pragma once

#include "history/HistoryIndex.h"

#include <QAbstractListModel>
#include <QTimer>
#include <QUuid>

namespace dictora {

class HistoryStore;

// The History store's filtered records as a list model, refreshed whenever
// the records, the search or a filter change. Rows carry ready-to-draw texts.
class HistoryListModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        SavedAtTextRole = Qt::UserRole + 1,
        ApplicationRole,
        DurationRole,
        EarsRole,     // "ears 812ms", or empty
        BadgesRole,   // QStringList
        PreviewRole,
        TranscriptRole,
        CopiedRole,   // bool: the row's copy button shows "Copied"
    };

    // What the list shows instead of rows.
    enum class EmptyState { none, noRecords, noMatches };

    explicit HistoryListModel(HistoryStore &store, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    const TranscriptRecord &record(int row) const { return m_index.records.at(m_rows.at(row)); }
    EmptyState emptyState() const;

    // Puts the transcript on the clipboard as plain text and shows "Copied"
    // on that row for a moment.
    void copyTranscript(int row);
    static constexpr int kCopiedFeedbackMs = 1500;

    static QString savedAtText(const TranscriptRecord &record, QLocale::FormatType format);
    static QString applicationText(const TranscriptRecord &record);
    static QString earsText(const TranscriptRecord &record);
    static QStringList badges(const TranscriptRecord &record);

public Q_SLOTS:
    void refresh();

Q_SIGNALS:
    void refreshed();

private:
    HistoryStore &m_store;
    // The store's records as of the last refresh (shared, not copied) and the
    // rows shown, as indices into them.
    HistoryIndex m_index;
    QList<int> m_rows;
    QUuid m_copied;
    QTimer m_copiedTimer;
};

// Puts text on the clipboard as plain text only.
void copyPlainText(const QString &text);

} // namespace dictora
