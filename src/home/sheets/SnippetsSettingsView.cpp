#include "home/sheets/SnippetsSettingsView.h"

#include "home/sheets/SettingsToggleCard.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>

namespace dictora {

namespace {
constexpr int kTriggerWidth = 220;

QIcon themedIcon(const QString &name, QStyle::StandardPixmap fallback, const QStyle *style)
{
    return QIcon::fromTheme(name, style->standardIcon(fallback));
}

// Drawn rather than taken from the theme, which may have none.
QIcon plusIcon(const QColor &colour)
{
    QPixmap pixmap(32, 32);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(colour, 4, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(16, 6), QPointF(16, 26));
    p.drawLine(QPointF(6, 16), QPointF(26, 16));
    return QIcon(pixmap);
}
}

SnippetsSettingsView::SnippetsSettingsView(SnippetStore &store, ProductPreferences &preferences, QWidget *parent)
    : QDialog(parent), m_store(store), m_preferences(preferences),
      m_formatting(new SettingsToggleCard(QStringLiteral("FORMAT WORDS"), this)),
      m_snippets(new SettingsToggleCard(QStringLiteral("USE SNIPPETS"), this)),
      m_empty(new QLabel(QStringLiteral("NO SNIPPETS YET"), this)), m_rowsLayout(new QVBoxLayout),
      m_add(new QPushButton(QStringLiteral("Add Snippet"), this))
{
    setObjectName(QStringLiteral("SnippetsSettingsView"));
    setWindowTitle(QStringLiteral("Snippets"));
    resize(620, 480);

    auto *title = new QLabel(QStringLiteral("Snippets"), this);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    titleFont.setBold(true);
    title->setFont(titleFont);
    auto *done = new QPushButton(QStringLiteral("Done"), this);
    done->setObjectName(QStringLiteral("done"));
    done->setAutoDefault(false);
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    auto *header = new QHBoxLayout;
    header->addWidget(title, 1);
    header->addWidget(done);

    m_formatting->setObjectName(QStringLiteral("formatWords"));
    m_snippets->setObjectName(QStringLiteral("useSnippets"));
    m_formatting->setOn(m_preferences.formattingEnabled());
    m_snippets->setOn(m_preferences.snippetsEnabled());
    connect(m_formatting, &SettingsToggleCard::toggled, &m_preferences, &ProductPreferences::setFormattingEnabled);
    connect(m_snippets, &SettingsToggleCard::toggled, &m_preferences, &ProductPreferences::setSnippetsEnabled);
    connect(&m_preferences, &ProductPreferences::formattingEnabledChanged, m_formatting, &SettingsToggleCard::setOn);
    connect(&m_preferences, &ProductPreferences::snippetsEnabledChanged, m_snippets, &SettingsToggleCard::setOn);
    auto *toggles = new QHBoxLayout;
    toggles->addWidget(m_formatting);
    toggles->addWidget(m_snippets);

    auto *line = new QLabel(
        QStringLiteral("Say the short phrase on the left. The longer text on the right is pasted locally."), this);
    line->setWordWrap(true);

    m_empty->setObjectName(QStringLiteral("empty"));
    m_empty->setAlignment(Qt::AlignCenter);
    QFont emptyFont = m_empty->font();
    emptyFont.setBold(true);
    m_empty->setFont(emptyFont);
    m_empty->setEnabled(false);

    auto *list = new QWidget;
    auto *listLayout = new QVBoxLayout(list);
    listLayout->setContentsMargins(0, 0, 0, 0);
    listLayout->addWidget(m_empty);
    listLayout->addLayout(m_rowsLayout);
    listLayout->addStretch(1);
    auto *scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(list);

    m_add->setObjectName(QStringLiteral("addSnippet"));
    m_add->setIcon(QIcon::fromTheme(QStringLiteral("list-add"), plusIcon(palette().color(QPalette::ButtonText))));
    m_add->setAutoDefault(false);
    connect(m_add, &QPushButton::clicked, this, [this] {
        const SnippetEntry entry = m_store.add();
        for (const Row &row : std::as_const(m_rows))
            if (row.id == entry.id)
                row.trigger->setFocus();
    });
    auto *addRow = new QHBoxLayout;
    addRow->addWidget(m_add);
    addRow->addStretch(1);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(header);
    layout->addLayout(toggles);
    layout->addWidget(line);
    layout->addWidget(scroll, 1);
    layout->addLayout(addRow);

    connect(&m_store, &SnippetStore::entriesChanged, this, &SnippetsSettingsView::syncRows);
    rebuildRows();
}

bool SnippetsSettingsView::showsEmptyState() const
{
    return !m_empty->isHidden();
}

void SnippetsSettingsView::syncRows()
{
    const SnippetEntries &entries = m_store.entries();
    bool sameIds = entries.size() == m_rows.size();
    for (int i = 0; sameIds && i < entries.size(); ++i)
        sameIds = entries.at(i).id == m_rows.at(i).id;
    if (!sameIds) {
        rebuildRows();
        return;
    }
    // Only a field changed: keep the widgets (and the cursor) where they are.
    for (int i = 0; i < entries.size(); ++i) {
        if (m_rows[i].trigger->text() != entries.at(i).trigger)
            m_rows[i].trigger->setText(entries.at(i).trigger);
        if (m_rows[i].expansion->text() != entries.at(i).expansion)
            m_rows[i].expansion->setText(entries.at(i).expansion);
    }
}

void SnippetsSettingsView::rebuildRows()
{
    for (const Row &row : std::as_const(m_rows))
        delete row.widget;
    m_rows.clear();

    const SnippetEntries &entries = m_store.entries();
    for (const SnippetEntry &entry : entries) {
        Row row;
        row.id = entry.id;
        row.widget = new QWidget;
        row.widget->setObjectName(QStringLiteral("snippetRow"));
        row.trigger = new QLineEdit(entry.trigger, row.widget);
        row.trigger->setObjectName(QStringLiteral("trigger"));
        row.trigger->setPlaceholderText(QStringLiteral("what I say"));
        row.trigger->setFixedWidth(kTriggerWidth);
        auto *arrow = new QLabel(QStringLiteral("→"), row.widget);
        arrow->setAccessibleName(QStringLiteral("becomes"));
        row.expansion = new QLineEdit(entry.expansion, row.widget);
        row.expansion->setObjectName(QStringLiteral("expansion"));
        row.expansion->setPlaceholderText(QStringLiteral("what gets pasted"));
        row.remove = new QToolButton(row.widget);
        row.remove->setObjectName(QStringLiteral("remove"));
        row.remove->setAutoRaise(true);
        row.remove->setIcon(themedIcon(QStringLiteral("user-trash"), QStyle::SP_TrashIcon, style()));
        row.remove->setToolTip(QStringLiteral("Remove"));
        row.remove->setAccessibleName(QStringLiteral("Remove"));

        auto *layout = new QHBoxLayout(row.widget);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(row.trigger);
        layout->addWidget(arrow);
        layout->addWidget(row.expansion, 1);
        layout->addWidget(row.remove);

        const QUuid id = entry.id;
        connect(row.trigger, &QLineEdit::textEdited, this, [this, id](const QString &text) { m_store.setTrigger(id, text); });
        connect(row.expansion, &QLineEdit::textEdited, this,
                [this, id](const QString &text) { m_store.setExpansion(id, text); });
        connect(row.remove, &QToolButton::clicked, this, [this, id] {
            SnippetEntry gone;
            gone.id = id;
            // Leave the slot before its row is deleted.
            QMetaObject::invokeMethod(this, [this, gone] { m_store.remove(gone); }, Qt::QueuedConnection);
        });
        m_rowsLayout->addWidget(row.widget);
        m_rows.append(row);
    }
    m_empty->setHidden(!entries.isEmpty());
}

} // namespace dictora
