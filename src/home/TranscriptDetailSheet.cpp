#include "home/TranscriptDetailSheet.h"

#include "history/TranscriptPresentation.h"
#include "home/HistoryListModel.h"
#include "home/Style.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace dictora {

TranscriptDetailSheet::TranscriptDetailSheet(const TranscriptRecord &record, QWidget *parent)
    : QDialog(parent)
    , m_record(record)
    , m_copy(new QPushButton(Style::symbol(Style::Symbol::copy), QStringLiteral("Copy Transcript"), this))
    , m_done(new QPushButton(QStringLiteral("Done"), this))
    , m_paste(new QPushButton(QStringLiteral("Paste Again"), this))
    , m_copiedTimer(new QTimer(this))
{
    setObjectName(QStringLiteral("TranscriptDetailSheet"));
    setWindowTitle(QStringLiteral("Transcript"));
    setMinimumSize(520, 380);

    auto *heading = new QLabel(QStringLiteral("Transcript"), this);
    heading->setProperty("role", "heading");
    auto *savedAt = new QLabel(HistoryListModel::savedAtText(record, QLocale::LongFormat), this);
    savedAt->setObjectName(QStringLiteral("savedAt"));
    QStringList details{HistoryListModel::applicationText(record),
        TranscriptPresentation::durationLabel(record.recordingDurationMilliseconds)};
    const QString ears = HistoryListModel::earsText(record);
    if (!ears.isEmpty())
        details << ears;
    auto *meta = new QLabel(details.join(QStringLiteral("  ·  ")), this);
    meta->setObjectName(QStringLiteral("details"));
    meta->setProperty("role", "secondary");

    auto *text = new QPlainTextEdit(record.transcript, this);
    text->setObjectName(QStringLiteral("transcript"));
    text->setReadOnly(true);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);

    m_done->setProperty("role", "primary");
    m_done->setDefault(true);
    m_copy->setAutoDefault(false);
    m_paste->setAutoDefault(false);
    m_paste->setEnabled(!record.transcript.trimmed().isEmpty());
    m_paste->setToolTip(QStringLiteral("Paste this transcript into the window you return to"));

    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_copy);
    buttons->addWidget(m_paste);
    buttons->addStretch(1);
    buttons->addWidget(m_done);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 18);
    layout->setSpacing(8);
    layout->addWidget(heading);
    layout->addWidget(savedAt);
    layout->addWidget(meta);
    layout->addWidget(text, 1);
    layout->addLayout(buttons);

    m_copiedTimer->setSingleShot(true);
    m_copiedTimer->setInterval(HistoryListModel::kCopiedFeedbackMs);
    connect(m_copiedTimer, &QTimer::timeout, this, [this] {
        m_copy->setText(QStringLiteral("Copy Transcript"));
        m_copy->setIcon(Style::symbol(Style::Symbol::copy));
    });
    connect(m_copy, &QPushButton::clicked, this, &TranscriptDetailSheet::copy);
    connect(m_done, &QPushButton::clicked, this, &QDialog::accept);
    connect(m_paste, &QPushButton::clicked, this, [this] {
        accept();
        Q_EMIT pasteRequested(m_record);
    });
}

void TranscriptDetailSheet::copy()
{
    copyPlainText(m_record.transcript);
    m_copy->setText(QStringLiteral("Copied"));
    m_copy->setIcon(Style::symbol(Style::Symbol::checkmark));
    m_copiedTimer->start();
}

} // namespace dictora
