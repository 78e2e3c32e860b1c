#include "onboarding/ui/ReadyScreen.h"

#include <QPushButton>
#include <QVBoxLayout>

namespace dictora {

ReadyScreen::ReadyScreen(const ProductPreferences &preferences, QWidget *parent)
    : OnboardingStageShell(parent), m_preferences(preferences)
{
    setHeadline(QStringLiteral("YOU'RE ALL DONE."));
    content()->addStretch(1);
    auto *done = makeDisplayButton(QStringLiteral("I'M ALL DONE"), QStringLiteral("finish"), this);
    connect(done, &QPushButton::clicked, this, &ReadyScreen::finishRequested);
    content()->addWidget(done);

    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, &ReadyScreen::refresh);
    refresh();
}

void ReadyScreen::refresh()
{
    setDetail(QStringLiteral("Press ") + m_preferences.keyboardShortcut().displayText());
}

} // namespace dictora
