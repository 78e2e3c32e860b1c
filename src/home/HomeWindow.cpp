#include "home/HomeWindow.h"

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/HistoryStore.h"
#include "history/TranscriptPresentation.h"

#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QVBoxLayout>

namespace dictora {

HomeWindow::HomeWindow(DictoraState &state, ProductPreferences &preferences, HistoryStore &history, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_preferences(preferences)
    , m_history(history)
    , m_header(new QLabel(this))
    , m_modelStatus(new QLabel(this))
    , m_search(new QLineEdit(this))
    , m_list(new QListWidget(this))
{
    setObjectName(QStringLiteral("DictoraHomeWindow"));
    setWindowTitle(QStringLiteral("Dictora"));
    resize(720, 560);
    m_search->setPlaceholderText(QStringLiteral("Search History"));
    m_search->setClearButtonEnabled(true);
    m_list->setUniformItemSizes(true);
    m_modelStatus->hide();

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_header);
    layout->addWidget(m_modelStatus);
    layout->addWidget(m_search);
    layout->addWidget(m_list, 1);

    connect(&m_state, &DictoraState::phaseChanged, this, &HomeWindow::updateHeader);
    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, &HomeWindow::updateHeader);
    connect(m_search, &QLineEdit::textChanged, &m_history, &HistoryStore::setQuery);
    connect(&m_history, &HistoryStore::recordsChanged, this, &HomeWindow::rebuildList);
    connect(&m_history, &HistoryStore::queryChanged, this, [this](const QString &query) {
        if (m_search->text() != query)
            m_search->setText(query);
        rebuildList();
    });
    connect(&m_history, &HistoryStore::filtersChanged, this, &HomeWindow::rebuildList);
    updateHeader();
}

void HomeWindow::present()
{
    show();
    raise();
    activateWindow();
    m_history.reload();
}

void HomeWindow::refreshIfVisible()
{
    if (isVisible())
        m_history.reload();
}

void HomeWindow::setModelStatus(const QString &text)
{
    m_modelStatus->setText(text);
    m_modelStatus->setVisible(!text.isEmpty());
}

void HomeWindow::updateHeader()
{
    const GlobalShortcut shortcut = m_preferences.keyboardShortcut();
    m_header->setText(QStringLiteral("%1 — press %2 to dictate")
                          .arg(m_state.phase().label(), shortcut.displayText()));
}

void HomeWindow::rebuildList()
{
    m_list->clear();
    const QLocale locale;
    for (const TranscriptRecord &r : m_history.filteredRecords()) {
        m_list->addItem(QStringLiteral("%1  ·  %2  ·  %3")
                            .arg(locale.toString(r.savedAt.toLocalTime(), QLocale::ShortFormat),
                                TranscriptPresentation::durationLabel(r.recordingDurationMilliseconds),
                                r.transcript.isEmpty() ? QStringLiteral("(%1)").arg(rawValue(r.outcome))
                                                       : TranscriptPresentation::rowPreview(r.transcript)));
    }
}

} // namespace dictora
