#include "onboarding/ui/PermissionsScreen.h"

#include "onboarding/ui/BundledFonts.h"

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>

namespace dictora {

PermissionsScreen::PermissionsScreen(const OnboardingModel &model, std::function<QString()> microphoneReason,
                                     std::function<QString()> accessibilityReason,
                                     std::function<QString()> accessibilityButtonText, QWidget *parent)
    : OnboardingStageShell(parent), m_model(model), m_microphoneReason(std::move(microphoneReason)),
      m_accessibilityReason(std::move(accessibilityReason)),
      m_accessibilityButtonText(std::move(accessibilityButtonText)),
      m_guidance(makePlainLabel(QStringLiteral("CLICK ALLOW."), QStringLiteral("guidance"), this)),
      m_percent(makePlainLabel(QString(), QStringLiteral("percent"), this)), m_progress(new QProgressBar(this)),
      m_allowMicrophone(makeDisplayButton(QStringLiteral("ALLOW MICROPHONE"), QStringLiteral("allowMicrophone"), this)),
      m_microphoneSettings(makeDisplayButton(QStringLiteral("OPEN MICROPHONE SETTINGS"),
                                             QStringLiteral("openMicrophoneSettings"), this)),
      m_accessibilitySettings(makeDisplayButton(QStringLiteral("OPEN ACCESSIBILITY SETTINGS"),
                                                QStringLiteral("openAccessibilitySettings"), this)),
      m_retryDownload(makeDisplayButton(QStringLiteral("RETRY DOWNLOAD"), QStringLiteral("retryDownload"), this))
{
    m_guidance->setFont(displayFont(22));
    m_percent->setFont(displayFont(28));
    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setRange(0, 100);
    m_progress->setTextVisible(false);
    m_progress->setMaximumHeight(10);

    connect(m_allowMicrophone, &QPushButton::clicked, this, &PermissionsScreen::microphoneRequested);
    connect(m_microphoneSettings, &QPushButton::clicked, this, &PermissionsScreen::microphoneSettingsRequested);
    connect(m_accessibilitySettings, &QPushButton::clicked, this, &PermissionsScreen::accessibilitySettingsRequested);
    connect(m_retryDownload, &QPushButton::clicked, this, &PermissionsScreen::downloadRetryRequested);

    content()->addWidget(m_guidance);
    content()->addWidget(m_percent);
    content()->addWidget(m_progress);
    content()->addStretch(1);
    for (QPushButton *button : {m_allowMicrophone, m_microphoneSettings, m_accessibilitySettings, m_retryDownload})
        content()->addWidget(button);

    connect(&m_model, &OnboardingModel::changed, this, &PermissionsScreen::refresh);
    refresh();
}

void PermissionsScreen::setModelPreparation(const ModelPreparation &preparation)
{
    m_preparation = preparation;
    refresh();
}

void PermissionsScreen::refresh()
{
    const OnboardingPermissionSnapshot permissions = m_model.permissions();
    const bool busy = m_model.isRequestingPermissions();
    const auto reason = [](const std::function<QString()> &provider) { return provider ? provider() : QString(); };

    for (QWidget *w : std::initializer_list<QWidget *>{m_guidance, m_percent, m_progress, m_allowMicrophone,
                                                        m_microphoneSettings, m_accessibilitySettings, m_retryDownload})
        w->hide();

    if (permissions.microphone != OnboardingPermissionStatus::authorized) {
        setEyebrow(QStringLiteral("STEP 1 OF 2"));
        setHeadline(QStringLiteral("TURN ON YOUR MICROPHONE."));
        setDetail(reason(m_microphoneReason));
        // Until the first check has answered, asking is the way forward; a
        // refusal is fixed in the sound settings.
        if (permissions.microphone == OnboardingPermissionStatus::notDetermined)
            m_allowMicrophone->show();
        else
            m_microphoneSettings->show();
    } else if (permissions.accessibility != OnboardingPermissionStatus::authorized) {
        setEyebrow(QStringLiteral("STEP 2 OF 2"));
        setHeadline(QStringLiteral("TURN ON DICTORA."));
        setDetail(reason(m_accessibilityReason));
        const QString buttonText = reason(m_accessibilityButtonText);
        m_accessibilitySettings->setText(buttonText.isEmpty() ? QStringLiteral("OPEN ACCESSIBILITY SETTINGS") : buttonText);
        m_guidance->show();
        m_accessibilitySettings->show();
    } else if (m_model.accuracyModelReady()) {
        setEyebrow(QString());
        setHeadline(QStringLiteral("PERMISSIONS DONE."));
        setDetail(QStringLiteral("Opening your microphone test…"));
    } else {
        setEyebrow(QStringLiteral("AUTOMATIC SETUP"));
        setHeadline(QStringLiteral("GETTING ACCURATE."));
        setDetail(QStringLiteral("Keep going—there is nothing to choose or install. Dictora is doing this for you."));
        if (m_preparation.percent) {
            const int percent = std::clamp(*m_preparation.percent, 0, 100);
            m_percent->setText(QString::number(percent) + QLatin1Char('%'));
            m_percent->show();
            m_progress->setValue(percent);
            m_progress->show();
        }
        m_retryDownload->setVisible(m_preparation.failed);
    }
    for (QPushButton *button : {m_allowMicrophone, m_microphoneSettings, m_accessibilitySettings})
        button->setEnabled(!busy);
}

} // namespace dictora
