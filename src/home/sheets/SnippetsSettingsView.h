#pragma once

#include "core/ProductPreferences.h"
#include "text/SnippetStore.h"

#include <QDialog>
#include <QUuid>

class QLabel;
class QLineEdit;
class QPushButton;
class QToolButton;
class QVBoxLayout;

namespace dictora {

class SettingsToggleCard;

// The sheet that edits the snippet list and the two text switches. Every
// edit goes straight to the store, which saves it.
class SnippetsSettingsView : public QDialog {
    Q_OBJECT
public:
    SnippetsSettingsView(SnippetStore &store, ProductPreferences &preferences, QWidget *parent = nullptr);

    struct Row {
        QUuid id;
        QWidget *widget = nullptr;
        QLineEdit *trigger = nullptr;
        QLineEdit *expansion = nullptr;
        QToolButton *remove = nullptr;
    };
    const QList<Row> &rows() const { return m_rows; }
    QPushButton *addButton() const { return m_add; }
    bool showsEmptyState() const;

private:
    void syncRows();
    void rebuildRows();

    SnippetStore &m_store;
    ProductPreferences &m_preferences;
    SettingsToggleCard *m_formatting;
    SettingsToggleCard *m_snippets;
    QLabel *m_empty;
    QVBoxLayout *m_rowsLayout;
    QPushButton *m_add;
    QList<Row> m_rows;
};

} // namespace dictora
