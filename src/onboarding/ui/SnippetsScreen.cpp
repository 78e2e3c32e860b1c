#include "onboarding/ui/SnippetsScreen.h"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace dictora {

SnippetsScreen::SnippetsScreen(QWidget *parent) : OnboardingStageShell(parent)
{
    setHeadline(QStringLiteral("SAY LESS. PASTE MORE."));
    setDetail(QStringLiteral(
        "Snippets replace a phrase you say with longer text you use often. Everything happens locally."));

    auto *card = makeCard(this);
    card->setObjectName(QStringLiteral("exampleSnippet"));
    auto *row = new QHBoxLayout(card);
    auto *trigger = makePlainLabel(QStringLiteral("my email"), QStringLiteral("exampleTrigger"), card);
    QFont bold = trigger->font();
    bold.setBold(true);
    trigger->setFont(bold);
    row->addWidget(trigger);
    row->addWidget(makePlainLabel(QStringLiteral("→"), QStringLiteral("arrow"), card), 0);
    row->addWidget(
        makePlainLabel(QStringLiteral("jordan.lee@example.com"), QStringLiteral("exampleExpansion"), card), 1);
    content()->addWidget(card);
    content()->addStretch(1);

    auto *use = makeDisplayButton(QStringLiteral("USE SNIPPETS"), QStringLiteral("useSnippets"), this);
    connect(use, &QPushButton::clicked, this, &SnippetsScreen::useSnippetsRequested);
    auto *next = makeDisplayButton(QStringLiteral("NEXT: TEST YOUR MIC"), QStringLiteral("next"), this);
    connect(next, &QPushButton::clicked, this, &SnippetsScreen::nextRequested);
    content()->addWidget(use);
    content()->addWidget(next);
}

} // namespace dictora
