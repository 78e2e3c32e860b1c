#pragma once

#include <QWidget>

class QLabel;
class QLineEdit;
class QListWidget;

namespace dictora {

class DictoraState;
class HistoryStore;
class ProductPreferences;

// The main window: the current phase and shortcut, the model's preparation,
// and the History list with search. It observes; it never drives a dictation.
class HomeWindow : public QWidget {
    Q_OBJECT
public:
    HomeWindow(DictoraState &state, ProductPreferences &preferences, HistoryStore &history,
        QWidget *parent = nullptr);

    // Shows, raises and reloads the History.
    void present();
    void refreshIfVisible();
    void setModelStatus(const QString &text);

private:
    void updateHeader();
    void rebuildList();

    DictoraState &m_state;
    ProductPreferences &m_preferences;
    HistoryStore &m_history;
    QLabel *m_header;
    QLabel *m_modelStatus;
    QLineEdit *m_search;
    QListWidget *m_list;
};

} // namespace dictora
