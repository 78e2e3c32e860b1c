#pragma once

#include "home/TranscriptDetailSheet.h"

#include <QPointer>
#include <QWidget>

class QComboBox;
class QFileDialog;
class QFrame;
class QLabel;
class QLineEdit;
class QListView;
class QMessageBox;
class QProgressBar;
class QPushButton;
class QStackedWidget;
class QToolButton;

namespace dictora {

class HistoryListModel;
class HistoryStore;


// The History: search and time filters, the record list, the archive
// control, a detail sheet per record and the store's notices as alerts.
// Everything it shows comes from the store; every control writes to it.
class HistoryView : public QWidget {
    Q_OBJECT
public:
    explicit HistoryView(HistoryStore &store, QWidget *parent = nullptr);

    HistoryListModel *model() const { return m_model; }
    QListView *list() const { return m_list; }
    QLineEdit *searchField() const { return m_search; }

    // The sheet of the record in that row of the list; replaces an open one.
    void openRecord(int row);
    TranscriptDetailSheet *presentedSheet() const { return m_sheet; }
    // The confirmation dialog, then the save panel, then the store.
    void requestArchive();

Q_SIGNALS:
    // A row's "Paste Again" (its context menu or its sheet).
    void pasteRequested(const dictora::TranscriptRecord &record);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QWidget *buildFilterBar();
    QFrame *buildFilterPanel();
    QWidget *buildEmptyState();
    void openSavePanel();
    void showRowMenu(const QPoint &position);
    void showNotice();
    void syncSearch();
    void syncFilters();
    void syncFilterPanel();
    void syncArchiving();
    void syncEmptyState();

    HistoryStore &m_store;
    HistoryListModel *m_model;
    QLineEdit *m_search = nullptr;
    QAction *m_clearSearch = nullptr;
    QToolButton *m_filterButton = nullptr;
    QPushButton *m_archiveButton = nullptr;
    QProgressBar *m_archiveProgress = nullptr;
    QLabel *m_loadingOlder = nullptr;
    QFrame *m_filterPanel = nullptr;
    QComboBox *m_hour = nullptr;
    QComboBox *m_day = nullptr;
    QComboBox *m_month = nullptr;
    QComboBox *m_year = nullptr;
    QPushButton *m_reset = nullptr;
    QStackedWidget *m_stack = nullptr;
    QListView *m_list = nullptr;
    QLabel *m_emptyTitle = nullptr;
    QLabel *m_emptyMessage = nullptr;
    QPointer<TranscriptDetailSheet> m_sheet;
    QPointer<QMessageBox> m_confirm;
    QPointer<QFileDialog> m_savePanel;
    QPointer<QMessageBox> m_noticeAlert;
    bool m_loaded = false;
};

} // namespace dictora
