#include "onboarding/ui/MicrophonePositionScreen.h"

#include "onboarding/ui/BundledFonts.h"
#include "onboarding/ui/OnboardingIllustrations.h"

#include <QButtonGroup>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSlider>

namespace dictora {

MicrophonePositionScreen::MicrophonePositionScreen(ProductPreferences &preferences, QWidget *parent)
    : OnboardingStageShell(parent), m_preferences(preferences), m_preview(new PlacementPreview(this)),
      m_sizes(new QButtonGroup(this)), m_opacity(new QSlider(Qt::Horizontal, this))
{
    setHeadline(QStringLiteral("CLICK A DIFFERENT SPOT TO MOVE THE MIC"));
    setDetail(QStringLiteral("Try position, size, and opacity. The preview updates instantly."));

    m_preview->setObjectName(QStringLiteral("placementPreview"));
    m_preview->setAnchor(m_preferences.microphoneLocation());
    m_preview->setOverlaySize(m_preferences.microphoneSize());
    m_preview->setOverlayOpacity(m_preferences.microphoneOpacity());
    connect(m_preview, &PlacementPreview::anchorChosen, &m_preferences, &ProductPreferences::setMicrophoneLocation);
    content()->addWidget(m_preview, 1);

    auto *placeholder =
        makePlainLabel(QStringLiteral("Your words appear here"), QStringLiteral("wordsPlaceholder"), this);
    placeholder->setAlignment(Qt::AlignCenter);
    placeholder->setEnabled(false);
    content()->addWidget(placeholder);

    auto *controls = new QHBoxLayout;
    auto *sizeLabel = makePlainLabel(QStringLiteral("SIZE"), QStringLiteral("sizeLabel"), this);
    sizeLabel->setFont(displayFont(18));
    controls->addWidget(sizeLabel);
    m_sizes->setExclusive(true);
    const QStringList names{QStringLiteral("Small"), QStringLiteral("Medium"), QStringLiteral("Large")};
    for (int i = 0; i < allOverlaySizes().size(); ++i) {
        auto *button = new QPushButton(names.value(i), this);
        button->setObjectName(QStringLiteral("size-") + rawValue(allOverlaySizes().at(i)));
        button->setCheckable(true);
        button->setChecked(allOverlaySizes().at(i) == m_preferences.microphoneSize());
        m_sizes->addButton(button, i);
        controls->addWidget(button);
    }
    connect(m_sizes, &QButtonGroup::idClicked, this,
            [this](int id) { m_preferences.setMicrophoneSize(allOverlaySizes().value(id, OverlaySize::medium)); });
    controls->addSpacing(16);
    controls->addWidget(makePlainLabel(QStringLiteral("Opacity"), QStringLiteral("opacityLabel"), this));
    m_opacity->setObjectName(QStringLiteral("opacity"));
    m_opacity->setRange(qRound(ProductPreferences::kMinimumOpacity * 100),
                        qRound(ProductPreferences::kMaximumOpacity * 100));
    m_opacity->setValue(qRound(m_preferences.microphoneOpacity() * 100));
    connect(m_opacity, &QSlider::valueChanged, this,
            [this](int value) { m_preferences.setMicrophoneOpacity(value / 100.0); });
    controls->addWidget(m_opacity, 1);
    content()->addLayout(controls);

    content()->addWidget(new MenuBarIllustration(this));
    content()->addWidget(
        makePlainLabel(QStringLiteral("Your microphone now lives in the menu bar at the top of your desktop."),
                       QStringLiteral("menuBarNote"), this));
    content()->addWidget(makePlainLabel(QStringLiteral("Click the Dictora microphone in your panel's tray"),
                                        QStringLiteral("menuBarHint"), this));

    auto *next = makeDisplayButton(QStringLiteral("NEXT: SNIPPETS"), QStringLiteral("next"), this);
    connect(next, &QPushButton::clicked, this, &MicrophonePositionScreen::nextRequested);
    content()->addWidget(next);

    // Settings changed elsewhere (the tray, the settings sheet) show here too.
    connect(&m_preferences, &ProductPreferences::microphoneLocationChanged, m_preview, &PlacementPreview::setAnchor);
    connect(&m_preferences, &ProductPreferences::microphoneSizeChanged, this, [this](OverlaySize size) {
        if (auto *button = m_sizes->button(allOverlaySizes().indexOf(size)))
            button->setChecked(true);
        m_preview->setOverlaySize(size);
    });
    connect(&m_preferences, &ProductPreferences::microphoneOpacityChanged, this, [this](double opacity) {
        m_opacity->setValue(qRound(opacity * 100));
        m_preview->setOverlayOpacity(opacity);
    });
}

} // namespace dictora
