#include "home/sheets/DiagnosticsSheet.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace dictora {

namespace {
QString mark(DiagnosticCheck::Status status)
{
    switch (status) {
    case DiagnosticCheck::Status::ok: return QStringLiteral("<span style='color:#2e7d32'>&#10004;</span>");
    case DiagnosticCheck::Status::warning: return QStringLiteral("<span style='color:#b26a00'>&#9888;</span>");
    case DiagnosticCheck::Status::failed: return QStringLiteral("<span style='color:#c62828'>&#10008;</span>");
    }
    return {};
}
} // namespace

DiagnosticsSheet::DiagnosticsSheet(Runner runner, QWidget *parent)
    : QDialog(parent), m_runner(std::move(runner)), m_rows(new QVBoxLayout), m_verdict(new QLabel(this)),
      m_again(new QPushButton(QStringLiteral("Check Again"), this))
{
    setObjectName(QStringLiteral("DiagnosticsSheet"));
    setWindowTitle(QStringLiteral("Diagnostics"));
    resize(640, 560);

    auto *title = new QLabel(QStringLiteral("Diagnostics"), this);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    titleFont.setBold(true);
    title->setFont(titleFont);
    auto *done = new QPushButton(QStringLiteral("Done"), this);
    done->setAutoDefault(false);
    m_again->setAutoDefault(false);
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    connect(m_again, &QPushButton::clicked, this, &DiagnosticsSheet::check);
    auto *header = new QHBoxLayout;
    header->addWidget(title, 1);
    header->addWidget(m_again);
    header->addWidget(done);

    m_verdict->setObjectName(QStringLiteral("verdict"));
    m_verdict->setWordWrap(true);
    auto *rows = new QWidget;
    m_rows->setContentsMargins(0, 0, 0, 0);
    m_rows->setSpacing(10);
    auto *rowsOuter = new QVBoxLayout(rows);
    rowsOuter->addLayout(m_rows);
    rowsOuter->addStretch(1);
    auto *scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(rows);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 18);
    layout->addLayout(header);
    layout->addWidget(m_verdict);
    layout->addWidget(scroll, 1);
}

void DiagnosticsSheet::check()
{
    m_again->setEnabled(false);
    m_verdict->setText(QStringLiteral("Checking… speak for three seconds to test the microphone."));
    QPointer<DiagnosticsSheet> self(this);
    m_runner([self](const DiagnosticReport &report) {
        if (self)
            self->showReport(report);
    });
}

void DiagnosticsSheet::showReport(const DiagnosticReport &report)
{
    while (QLayoutItem *item = m_rows->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const DiagnosticCheck &check : report.checks) {
        QString html = QStringLiteral("%1 <b>%2</b>").arg(mark(check.status), check.title.toHtmlEscaped());
        if (!check.mechanism.isEmpty())
            html += QStringLiteral(" <span style='color:gray'>%1</span>").arg(check.mechanism.toHtmlEscaped());
        html += QStringLiteral("<br>%1").arg(check.detail.toHtmlEscaped());
        if (!check.advice.isEmpty())
            html += QStringLiteral("<br><i>%1</i>").arg(check.advice.toHtmlEscaped());
        auto *row = new QLabel(html);
        row->setObjectName(check.id);
        row->setWordWrap(true);
        row->setTextInteractionFlags(Qt::TextSelectableByMouse);
        m_rows->addWidget(row);
    }
    m_verdict->setText(report.dictationWorks() ? QStringLiteral("Everything a dictation needs works.")
                                               : QStringLiteral("Dictation cannot work until the marked problems are fixed."));
    m_again->setEnabled(true);
}

} // namespace dictora
