#include "home/HistoryView.h"

#include "history/HistoryStore.h"
#include "history/TranscriptHistoryArchive.h"
#include "home/HistoryListModel.h"
#include "home/HistoryRowDelegate.h"
#include "home/Style.h"
#include "home/TranscriptDetailSheet.h"

#include <QAction>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QMouseEvent>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

namespace dictora {

namespace {

constexpr int kNoFilter = 0; // index of the "Any" entry in every filter menu

QComboBox *filterCombo(QWidget *parent, const QString &objectName, int first, int last)
{
    auto *combo = new QComboBox(parent);
    combo->setObjectName(objectName);
    combo->addItem(QStringLiteral("Any"));
    for (int v = first; v <= last; ++v)
        combo->addItem(QString::number(v), v);
    combo->setMinimumWidth(90);
    return combo;
}

// `HistoryFilterField`: a caption above its menu.
QWidget *filterField(QWidget *parent, const QString &title, QComboBox *combo)
{
    auto *field = new QWidget(parent);
    auto *layout = new QVBoxLayout(field);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(3);
    auto *caption = new QLabel(title, field);
    caption->setProperty("role", "secondary");
    caption->setBuddy(combo);
    layout->addWidget(caption);
    layout->addWidget(combo);
    return field;
}

void selectValue(QComboBox *combo, std::optional<int> value)
{
    const QSignalBlocker block(combo);
    const int at = value ? combo->findData(*value) : kNoFilter;
    combo->setCurrentIndex(at < 0 ? kNoFilter : at);
}

std::optional<int> chosenValue(const QComboBox *combo)
{
    const QVariant v = combo->currentData();
    return v.isValid() ? std::optional<int>(v.toInt()) : std::nullopt;
}

} // namespace

HistoryView::HistoryView(HistoryStore &store, QWidget *parent)
    : QWidget(parent), m_store(store), m_model(new HistoryListModel(store, this))
{
    setObjectName(QStringLiteral("HistoryView"));

    m_list = new QListView(this);
    m_list->setObjectName(QStringLiteral("historyList"));
    m_list->setModel(m_model);
    m_list->setItemDelegate(new HistoryRowDelegate(m_list));
    m_list->setUniformItemSizes(true);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setMouseTracking(true);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setAccessibleName(QStringLiteral("History"));
    m_list->installEventFilter(this);
    m_list->viewport()->installEventFilter(this);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_list, &QWidget::customContextMenuRequested, this, &HistoryView::showRowMenu);

    m_stack = new QStackedWidget(this);
    m_stack->addWidget(m_list);
    m_stack->addWidget(buildEmptyState());

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);
    layout->addWidget(buildFilterBar());
    layout->addWidget(buildFilterPanel());
    layout->addWidget(m_stack, 1);

    connect(m_model, &HistoryListModel::refreshed, this, &HistoryView::syncEmptyState);
    connect(&m_store, &HistoryStore::reloaded, this, [this] {
        m_loaded = true;
        syncEmptyState();
    });
    connect(m_model, &QAbstractItemModel::modelReset, this, [this] {
        if (m_model->rowCount() > 0)
            m_list->setCurrentIndex(m_model->index(0));
    });
    connect(&m_store, &HistoryStore::queryChanged, this, &HistoryView::syncSearch);
    connect(&m_store, &HistoryStore::filtersChanged, this, &HistoryView::syncFilters);
    connect(&m_store, &HistoryStore::recordsChanged, this, &HistoryView::syncFilters);
    connect(&m_store, &HistoryStore::filterPanelPresentedChanged, this, &HistoryView::syncFilterPanel);
    connect(&m_store, &HistoryStore::isArchivingChanged, this, &HistoryView::syncArchiving);
    connect(&m_store, &HistoryStore::loadingOlderChanged, this, &HistoryView::syncArchiving);
    connect(&m_store, &HistoryStore::noticeChanged, this, &HistoryView::showNotice);

    syncSearch();
    syncFilters();
    syncFilterPanel();
    syncArchiving();
    syncEmptyState();
}

QWidget *HistoryView::buildFilterBar()
{
    auto *bar = new QWidget(this);
    auto *row = new QHBoxLayout(bar);
    row->setContentsMargins(14, 0, 14, 0);
    row->setSpacing(8);

    m_search = new QLineEdit(bar);
    m_search->setObjectName(QStringLiteral("search"));
    m_search->setPlaceholderText(QStringLiteral("Search every transcription"));
    m_search->setAccessibleName(QStringLiteral("Search every transcription"));
    m_search->addAction(Style::symbol(Style::Symbol::magnifyingGlass), QLineEdit::LeadingPosition);
    m_clearSearch = m_search->addAction(Style::symbol(Style::Symbol::clearField), QLineEdit::TrailingPosition);
    m_clearSearch->setObjectName(QStringLiteral("clearSearch"));
    m_clearSearch->setToolTip(QStringLiteral("Clear search"));
    m_clearSearch->setText(QStringLiteral("Clear search"));
    m_search->installEventFilter(this);
    connect(m_clearSearch, &QAction::triggered, this, [this] { m_store.setQuery(QString()); });
    connect(m_search, &QLineEdit::textChanged, this, [this](const QString &text) {
        m_clearSearch->setVisible(!text.isEmpty());
        m_store.setQuery(text);
    });

    m_filterButton = new QToolButton(bar);
    m_filterButton->setObjectName(QStringLiteral("filterButton"));
    m_filterButton->setIcon(Style::symbol(Style::Symbol::filter));
    m_filterButton->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    m_filterButton->setCheckable(true);
    m_filterButton->setAccessibleName(QStringLiteral("Filter"));
    connect(m_filterButton, &QToolButton::clicked, this,
        [this] { m_store.setFilterPanelPresented(!m_store.isFilterPanelPresented()); });

    m_archiveButton = new QPushButton(Style::symbol(Style::Symbol::archive), QString(), bar);
    m_archiveButton->setObjectName(QStringLiteral("archiveButton"));
    m_archiveButton->setToolTip(QStringLiteral("Archive all History and clear it"));
    m_archiveButton->setAccessibleName(QStringLiteral("Archive & Clear"));
    m_archiveButton->setAccessibleDescription(
        QStringLiteral("Save every transcription to a verified archive, then clear History"));
    connect(m_archiveButton, &QPushButton::clicked, this, &HistoryView::requestArchive);

    m_archiveProgress = new QProgressBar(bar);
    m_archiveProgress->setObjectName(QStringLiteral("archiveProgress"));
    m_archiveProgress->setRange(0, 0); // busy
    m_archiveProgress->setTextVisible(false);
    m_archiveProgress->setFixedWidth(48);

    // A long History shows its newest rows first; this says the rest is coming.
    m_loadingOlder = new QLabel(QStringLiteral("Loading older dictations…"), bar);
    m_loadingOlder->setObjectName(QStringLiteral("loadingOlder"));
    m_loadingOlder->setProperty("role", "secondary");
    m_loadingOlder->hide();

    row->addWidget(m_search, 1);
    row->addWidget(m_loadingOlder);
    row->addWidget(m_filterButton);
    row->addWidget(m_archiveProgress);
    row->addWidget(m_archiveButton);
    return bar;
}

QFrame *HistoryView::buildFilterPanel()
{
    m_filterPanel = new QFrame(this);
    m_filterPanel->setObjectName(QStringLiteral("filterPanel"));
    m_filterPanel->setProperty("role", "card");
    auto *outer = new QHBoxLayout;
    outer->setContentsMargins(14, 0, 14, 0);
    auto *row = new QHBoxLayout(m_filterPanel);
    row->setContentsMargins(14, 10, 14, 12);
    row->setSpacing(12);

    m_hour = filterCombo(m_filterPanel, QStringLiteral("hourFilter"), 0, 23);
    m_day = filterCombo(m_filterPanel, QStringLiteral("dayFilter"), 1, 31);
    m_month = filterCombo(m_filterPanel, QStringLiteral("monthFilter"), 1, 12);
    m_year = filterCombo(m_filterPanel, QStringLiteral("yearFilter"), 1, 0);
    row->addWidget(filterField(m_filterPanel, QStringLiteral("Hour"), m_hour));
    row->addWidget(filterField(m_filterPanel, QStringLiteral("Day"), m_day));
    row->addWidget(filterField(m_filterPanel, QStringLiteral("Month"), m_month));
    row->addWidget(filterField(m_filterPanel, QStringLiteral("Year"), m_year));
    row->addStretch(1);

    m_reset = new QPushButton(QStringLiteral("Reset"), m_filterPanel);
    m_reset->setObjectName(QStringLiteral("resetFilters"));
    m_reset->setToolTip(QStringLiteral("Reset time filters"));
    row->addWidget(m_reset, 0, Qt::AlignBottom);
    connect(m_reset, &QPushButton::clicked, &m_store, &HistoryStore::resetTimeFilters);

    const auto bind = [this](QComboBox *combo, void (HistoryStore::*set)(std::optional<int>)) {
        connect(combo, &QComboBox::currentIndexChanged, this, [this, combo, set] { (m_store.*set)(chosenValue(combo)); });
    };
    bind(m_hour, &HistoryStore::setFilterHour);
    bind(m_day, &HistoryStore::setFilterDay);
    bind(m_month, &HistoryStore::setFilterMonth);
    bind(m_year, &HistoryStore::setFilterYear);

    // Indent the card like the rows below it.
    auto *wrapper = new QFrame(this);
    wrapper->setLayout(outer);
    outer->addWidget(m_filterPanel);
    m_filterPanel = wrapper;
    return wrapper;
}

QWidget *HistoryView::buildEmptyState()
{
    // `EmptyHistoryView`.
    auto *page = new QWidget(this);
    page->setObjectName(QStringLiteral("emptyHistory"));
    auto *layout = new QVBoxLayout(page);
    m_emptyTitle = new QLabel(page);
    m_emptyTitle->setObjectName(QStringLiteral("emptyTitle"));
    m_emptyTitle->setProperty("role", "heading");
    m_emptyTitle->setAlignment(Qt::AlignCenter);
    m_emptyMessage = new QLabel(page);
    m_emptyMessage->setObjectName(QStringLiteral("emptyMessage"));
    m_emptyMessage->setProperty("role", "secondary");
    m_emptyMessage->setAlignment(Qt::AlignCenter);
    m_emptyMessage->setWordWrap(true);
    layout->addStretch(1);
    layout->addWidget(m_emptyTitle);
    layout->addWidget(m_emptyMessage);
    layout->addStretch(2);
    return page;
}

void HistoryView::syncSearch()
{
    if (m_search->text() != m_store.query()) {
        const QSignalBlocker block(m_search);
        m_search->setText(m_store.query());
    }
    m_clearSearch->setVisible(!m_search->text().isEmpty());
}

void HistoryView::syncFilters()
{
    {
        const QSignalBlocker block(m_year);
        const QList<int> years = m_store.availableFilterYears();
        bool same = m_year->count() == years.size() + 1;
        for (int i = 0; same && i < years.size(); ++i)
            same = m_year->itemData(i + 1).toInt() == years[i];
        if (!same) {
            while (m_year->count() > 1)
                m_year->removeItem(1);
            for (int y : years)
                m_year->addItem(QString::number(y), y);
        }
    }
    selectValue(m_hour, m_store.filterHour());
    selectValue(m_day, m_store.filterDay());
    selectValue(m_month, m_store.filterMonth());
    selectValue(m_year, m_store.filterYear());
    const bool active = m_store.hasActiveTimeFilter();
    m_reset->setEnabled(active);
    m_filterButton->setText(QStringLiteral("Filter · ") + (active ? QStringLiteral("Active") : QStringLiteral("Any time")));
}

void HistoryView::syncFilterPanel()
{
    const bool shown = m_store.isFilterPanelPresented();
    m_filterPanel->setVisible(shown);
    m_filterButton->setChecked(shown);
    m_filterButton->setToolTip(shown ? QStringLiteral("Hide filters") : QStringLiteral("Show filters"));
}

void HistoryView::syncArchiving()
{
    const bool archiving = m_store.isArchiving();
    // "&&" shows a literal ampersand rather than a mnemonic.
    m_archiveButton->setText(archiving ? QStringLiteral("Archiving…") : QStringLiteral("Archive && Clear"));
    // Until the whole History is read, its count in the confirmation would be wrong.
    m_archiveButton->setEnabled(!archiving && !m_store.isLoadingOlder());
    m_archiveProgress->setVisible(archiving);
    m_loadingOlder->setVisible(m_store.isLoadingOlder());
}

void HistoryView::syncEmptyState()
{
    switch (m_model->emptyState()) {
    case HistoryListModel::EmptyState::none:
        m_stack->setCurrentIndex(0);
        return;
    case HistoryListModel::EmptyState::noRecords:
        if (!m_loaded) {
            // Not "Nothing here yet" before the journal has been read once.
            m_emptyTitle->setText(QStringLiteral("Loading History…"));
            m_emptyMessage->clear();
            break;
        }
        m_emptyTitle->setText(QStringLiteral("Nothing here yet"));
        m_emptyMessage->setText(QStringLiteral("Your completed dictations will appear here automatically."));
        break;
    case HistoryListModel::EmptyState::noMatches:
        m_emptyTitle->setText(QStringLiteral("No matches"));
        m_emptyMessage->setText(QStringLiteral("Try different words or a broader time range."));
        break;
    }
    m_stack->setCurrentIndex(1);
}

void HistoryView::openRecord(int row)
{
    if (row < 0 || row >= m_model->rowCount())
        return;
    if (m_sheet)
        m_sheet->close();
    auto *sheet = new TranscriptDetailSheet(m_model->record(row), this);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    m_sheet = sheet;
    connect(sheet, &TranscriptDetailSheet::pasteRequested, this, &HistoryView::pasteRequested);
    sheet->open();
}

void HistoryView::showRowMenu(const QPoint &position)
{
    const QModelIndex index = m_list->indexAt(position);
    if (!index.isValid())
        return;
    const TranscriptRecord record = m_model->record(index.row());
    auto *menu = new QMenu(this);
    menu->setObjectName(QStringLiteral("historyRowMenu"));
    menu->setAttribute(Qt::WA_DeleteOnClose);
    QAction *paste = menu->addAction(QStringLiteral("Paste Again"), this, [this, record] { Q_EMIT pasteRequested(record); });
    paste->setEnabled(!record.transcript.trimmed().isEmpty());
    menu->addAction(QStringLiteral("Copy Transcript"), this, [this, row = index.row()] { m_model->copyTranscript(row); });
    menu->addAction(QStringLiteral("Show Details"), this, [this, row = index.row()] { openRecord(row); });
    menu->popup(m_list->viewport()->mapToGlobal(position));
}

void HistoryView::requestArchive()
{
    if (m_store.isArchiving() || m_store.isLoadingOlder() || m_confirm)
        return;
    auto *box = new QMessageBox(this);
    box->setObjectName(QStringLiteral("archiveConfirmation"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowTitle(QStringLiteral("Archive and clear all History?"));
    box->setText(QStringLiteral("Archive and clear all History?"));
    box->setInformativeText(QStringLiteral("All %1 transcriptions will be saved—not only the current search or filter "
                                           "results. Dictora clears History only after the archive is written and "
                                           "verified.")
                                .arg(qlonglong(m_store.records().size())));
    box->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    QPushButton *choose = box->addButton(QStringLiteral("Choose Save Location"), QMessageBox::AcceptRole);
    box->setDefaultButton(choose);
    connect(box, &QMessageBox::buttonClicked, this, [this, choose](QAbstractButton *clicked) {
        if (clicked == choose)
            QMetaObject::invokeMethod(this, &HistoryView::openSavePanel, Qt::QueuedConnection);
    });
    m_confirm = box;
    box->open();
}

void HistoryView::openSavePanel()
{
    if (m_savePanel)
        return;
    // A free-standing window of its own, not a sheet over the History.
    auto *panel = new QFileDialog(this, QStringLiteral("Archive Dictora History"));
    panel->setObjectName(QStringLiteral("archiveSavePanel"));
    panel->setWindowFlag(Qt::Window);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    // Qt's own dialog, so the explanatory line can sit inside it.
    panel->setOption(QFileDialog::DontUseNativeDialog);
    panel->setAcceptMode(QFileDialog::AcceptSave);
    panel->setFileMode(QFileDialog::AnyFile);
    panel->setNameFilter(QStringLiteral("JSON (*.json)"));
    panel->setDefaultSuffix(QStringLiteral("json"));
    panel->setLabelText(QFileDialog::Accept, QStringLiteral("Archive"));
    panel->setDirectory(QDir::homePath());
    panel->selectFile(TranscriptHistoryArchive::suggestedFilename(QDateTime::currentDateTime()));
    if (auto *grid = qobject_cast<QGridLayout *>(panel->layout())) {
        auto *message = new QLabel(QStringLiteral("Choose where to save the complete verified History archive."), panel);
        message->setObjectName(QStringLiteral("savePanelMessage"));
        message->setWordWrap(true);
        grid->addWidget(message, grid->rowCount(), 0, 1, grid->columnCount());
    }
    connect(panel, &QFileDialog::fileSelected, this, [this](const QString &path) {
        if (!path.isEmpty())
            m_store.archiveAndClear(path);
    });
    m_savePanel = panel;
    panel->show();
    panel->raise();
    panel->activateWindow();
}

void HistoryView::showNotice()
{
    const std::optional<HistoryNotice> notice = m_store.notice();
    if (!notice) {
        if (m_noticeAlert)
            m_noticeAlert->close();
        return;
    }
    if (!m_noticeAlert) {
        auto *box = new QMessageBox(this);
        box->setObjectName(QStringLiteral("historyNotice"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setStandardButtons(QMessageBox::Ok);
        connect(box, &QDialog::finished, this, [this] { m_store.clearNotice(); });
        m_noticeAlert = box;
    }
    m_noticeAlert->setWindowTitle(notice->title);
    m_noticeAlert->setText(notice->title);
    m_noticeAlert->setInformativeText(notice->message);
    m_noticeAlert->open();
}

bool HistoryView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_list->viewport() && event->type() == QEvent::MouseButtonRelease) {
        auto *mouse = static_cast<QMouseEvent *>(event);
        const QModelIndex index = m_list->indexAt(mouse->position().toPoint());
        if (mouse->button() == Qt::LeftButton && index.isValid()) {
            const bool copied = index.data(HistoryListModel::CopiedRole).toBool();
            if (HistoryRowDelegate::copyButtonRect(m_list->visualRect(index), copied).contains(mouse->position().toPoint()))
                m_model->copyTranscript(index.row());
            else
                openRecord(index.row());
        }
        return false;
    }
    if (event->type() != QEvent::KeyPress)
        return false;
    auto *key = static_cast<QKeyEvent *>(event);
    const bool enter = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
    if (watched == m_list) {
        if (enter) {
            openRecord(m_list->currentIndex().row());
            return true;
        }
        // Typing anywhere in the list goes to the search.
        const QString text = key->text();
        const bool plain = !(key->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier));
        if (plain && (key->key() == Qt::Key_Backspace || (!text.isEmpty() && text.at(0).isPrint()))) {
            m_search->setFocus();
            if (key->key() == Qt::Key_Backspace)
                m_search->backspace();
            else
                m_search->insert(text);
            return true;
        }
    } else if (watched == m_search) {
        if (key->key() == Qt::Key_Down && m_model->rowCount() > 0) {
            m_list->setFocus();
            if (!m_list->currentIndex().isValid())
                m_list->setCurrentIndex(m_model->index(0));
            return true;
        }
        if (enter && m_model->rowCount() > 0) {
            openRecord(m_list->currentIndex().isValid() ? m_list->currentIndex().row() : 0);
            return true;
        }
        if (key->key() == Qt::Key_Escape && !m_search->text().isEmpty()) {
            m_store.setQuery(QString());
            return true;
        }
    }
    return false;
}

} // namespace dictora
