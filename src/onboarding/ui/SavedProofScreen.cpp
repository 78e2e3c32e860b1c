#include "onboarding/ui/SavedProofScreen.h"

#include <QFrame>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

namespace dictora {

SavedProofScreen::SavedProofScreen(const OnboardingModel &model, QWidget *parent)
    : OnboardingStageShell(parent), m_model(model)
{
    setEyebrow(QStringLiteral("SAVED ON THIS COMPUTER"));
    setHeadline(QStringLiteral("NOTHING GOT LOST."));
    setDetail(QStringLiteral("Your exact words are already in History with their timestamp."));
    auto *card = makeCard(this);
    card->setObjectName(QStringLiteral("savedCard"));
    auto *layout = new QVBoxLayout(card);
    m_time = makePlainLabel(QString(), QStringLiteral("savedTime"), card);
    m_time->setEnabled(false);
    m_text = makePlainLabel(QString(), QStringLiteral("savedTranscript"), card);
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont f = m_text->font();
    f.setPointSizeF(f.pointSizeF() * 1.3);
    m_text->setFont(f);
    layout->addWidget(m_time);
    layout->addWidget(m_text);
    content()->addWidget(card);
    content()->addStretch(1);
    auto *next = makeDisplayButton(QStringLiteral("SHOW ME SEARCH"), QStringLiteral("next"), this);
    connect(next, &QPushButton::clicked, this, &SavedProofScreen::nextRequested);
    content()->addWidget(next);

    connect(&m_model, &OnboardingModel::changed, this, &SavedProofScreen::refresh);
    refresh();
}

void SavedProofScreen::refresh()
{
    m_text->setText(m_model.practiceTranscript());
    const auto savedAt = m_model.practiceSavedAt();
    m_time->setText(savedAt ? QLocale().toString(savedAt->toLocalTime(), QLocale::LongFormat) : QString());
}

} // namespace dictora
