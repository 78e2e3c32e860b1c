#include "onboarding/ui/OnboardingStageShell.h"

#include "onboarding/ui/BundledFonts.h"

#include <QFrame>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace dictora {

OnboardingStageShell::OnboardingStageShell(QWidget *parent)
    : QWidget(parent), m_eyebrow(new QLabel(this)), m_headline(new QLabel(this)), m_detail(new QLabel(this)),
      m_content(new QVBoxLayout)
{
    m_eyebrow->setObjectName(QStringLiteral("eyebrow"));
    m_headline->setObjectName(QStringLiteral("headline"));
    m_detail->setObjectName(QStringLiteral("detail"));

    QFont eyebrowFont = font();
    eyebrowFont.setBold(true);
    eyebrowFont.setLetterSpacing(QFont::AbsoluteSpacing, 1.5);
    m_eyebrow->setFont(eyebrowFont);
    QPalette dim = m_eyebrow->palette();
    dim.setColor(QPalette::WindowText, dim.color(QPalette::PlaceholderText));
    m_eyebrow->setPalette(dim);

    m_headline->setFont(displayFont(40));
    m_headline->setWordWrap(true);
    m_headline->setTextFormat(Qt::PlainText);
    m_detail->setWordWrap(true);
    m_detail->setTextFormat(Qt::PlainText);
    QFont detailFont = font();
    detailFont.setPointSizeF(detailFont.pointSizeF() * 1.15);
    m_detail->setFont(detailFont);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(40, 32, 40, 32);
    layout->setSpacing(10);
    layout->addWidget(m_eyebrow);
    layout->addWidget(m_headline);
    layout->addWidget(m_detail);
    layout->addSpacing(12);
    m_content->setSpacing(12);
    layout->addLayout(m_content, 1);
}

void OnboardingStageShell::setEyebrow(const QString &text)
{
    m_eyebrow->setText(text);
    m_eyebrow->setVisible(!text.isEmpty());
}

void OnboardingStageShell::setHeadline(const QString &text)
{
    m_headline->setText(text);
}

void OnboardingStageShell::setDetail(const QString &text)
{
    m_detail->setText(text);
    m_detail->setVisible(!text.isEmpty());
}

QString OnboardingStageShell::eyebrow() const
{
    return m_eyebrow->text();
}

QString OnboardingStageShell::headline() const
{
    return m_headline->text();
}

QString OnboardingStageShell::detail() const
{
    return m_detail->text();
}

QPushButton *makeDisplayButton(const QString &text, const QString &objectName, QWidget *parent)
{
    auto *button = new QPushButton(text, parent);
    button->setObjectName(objectName);
    button->setFont(displayFont(20));
    button->setMinimumHeight(44);
    button->setCursor(Qt::PointingHandCursor);
    return button;
}

QLabel *makePlainLabel(const QString &text, const QString &objectName, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(objectName);
    label->setWordWrap(true);
    label->setTextFormat(Qt::PlainText);
    return label;
}

QFrame *makeCard(QWidget *parent)
{
    auto *card = new QFrame(parent);
    card->setFrameShape(QFrame::StyledPanel);
    card->setAutoFillBackground(true);
    card->setBackgroundRole(QPalette::Base);
    return card;
}

} // namespace dictora
