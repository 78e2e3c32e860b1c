#include "home/HomeWindow.h"

#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "history/HistoryStore.h"
#include "home/AppearanceSheet.h"
#include "home/HistoryView.h"
#include "home/TranscriptDetailSheet.h"
#include "home/Style.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace dictora {

namespace {

QPushButton *sheetButton(const QString &text, Style::Symbol symbol, const QString &name, QWidget *parent)
{
    auto *button = new QPushButton(Style::symbol(symbol), text, parent);
    button->setObjectName(name);
    button->setAutoDefault(false);
    return button;
}

} // namespace

QSize HomeWindow::contentSize(bool onboarding)
{
    return onboarding ? QSize(960, 900) : QSize(960, 700);
}

QSize HomeWindow::minimumContentSize(bool onboarding)
{
    return onboarding ? QSize(760, 820) : QSize(760, 580);
}

HomeWindow::HomeWindow(DictoraState &state, ProductPreferences &preferences, HistoryStore &history, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_preferences(preferences)
    , m_history(history)
    , m_pages(new QStackedWidget(this))
    , m_shortcut(new QLabel(this))
    , m_phase(new QLabel(this))
    , m_banner(new QFrame(this))
    , m_bannerText(new QLabel(m_banner))
    , m_bannerProgress(new QProgressBar(m_banner))
    , m_bannerPercent(new QLabel(m_banner))
    , m_retry(new QPushButton(QStringLiteral("RETRY DOWNLOAD"), m_banner))
    , m_historyView(new HistoryView(history, this))
{
    setObjectName(QStringLiteral("DictoraMainWindow"));
    setProperty("identifier", QString::fromLatin1(kIdentifier));
    setWindowTitle(QStringLiteral("Dictora"));
    setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint
        | Qt::WindowMaximizeButtonHint | Qt::WindowCloseButtonHint);
    setAttribute(Qt::WA_StyledBackground);
    setAutoFillBackground(true);

    // Header: name, shortcut, phase, and the settings sheets.
    auto *title = new QLabel(QStringLiteral("Dictora"), this);
    title->setProperty("role", "title");
    m_shortcut->setObjectName(QStringLiteral("shortcutLabel"));
    m_shortcut->setTextFormat(Qt::PlainText);
    m_shortcut->setProperty("role", "keycap");
    m_shortcut->setToolTip(QStringLiteral("Press this shortcut in any application to start and stop dictation"));
    auto *shortcutCaption = new QLabel(QStringLiteral("Shortcut"), this);
    shortcutCaption->setProperty("role", "secondary");
    m_phase->setObjectName(QStringLiteral("phaseLabel"));
    m_phase->setProperty("role", "secondary");
    auto *status = new QHBoxLayout;
    status->setSpacing(8);
    status->addWidget(shortcutCaption);
    status->addWidget(m_shortcut);
    status->addSpacing(10);
    status->addWidget(m_phase, 1);
    auto *identity = new QVBoxLayout;
    identity->setSpacing(2);
    identity->addWidget(title);
    identity->addLayout(status);

    auto *shortcutButton = sheetButton(QStringLiteral("Shortcut"), Style::Symbol::keyboard, QStringLiteral("shortcutButton"), this);
    auto *appearanceButton = sheetButton(QStringLiteral("Appearance"), Style::Symbol::gear, QStringLiteral("appearanceButton"), this);
    auto *snippetsButton = sheetButton(QStringLiteral("Snippets"), Style::Symbol::snippets, QStringLiteral("snippetsButton"), this);
    connect(shortcutButton, &QPushButton::clicked, this, &HomeWindow::shortcutSheetRequested);
    connect(appearanceButton, &QPushButton::clicked, this, &HomeWindow::openAppearanceSheet);
    auto *diagnosticsButton = sheetButton(QStringLiteral("Diagnostics"), Style::Symbol::checkmark, QStringLiteral("diagnosticsButton"), this);
    connect(snippetsButton, &QPushButton::clicked, this, &HomeWindow::snippetsSheetRequested);
    connect(diagnosticsButton, &QPushButton::clicked, this, &HomeWindow::diagnosticsSheetRequested);
    auto *recognitionButton = sheetButton(QStringLiteral("Dictation"), Style::Symbol::gear, QStringLiteral("recognitionButton"), this);
    connect(recognitionButton, &QPushButton::clicked, this, &HomeWindow::recognitionSheetRequested);
    connect(m_historyView, &HistoryView::pasteRequested, this, &HomeWindow::pasteRecordRequested);

    auto *header = new QHBoxLayout;
    header->setContentsMargins(14, 0, 14, 0);
    header->addLayout(identity, 1);
    header->addWidget(shortcutButton, 0, Qt::AlignVCenter);
    header->addWidget(appearanceButton, 0, Qt::AlignVCenter);
    header->addWidget(snippetsButton, 0, Qt::AlignVCenter);
    header->addWidget(recognitionButton, 0, Qt::AlignVCenter);
    header->addWidget(diagnosticsButton, 0, Qt::AlignVCenter);

    // Model banner, hidden while the model is ready.
    m_banner->setObjectName(QStringLiteral("modelBanner"));
    m_banner->setProperty("role", "banner");
    m_bannerText->setObjectName(QStringLiteral("bannerText"));
    m_bannerText->setWordWrap(true);
    m_bannerProgress->setObjectName(QStringLiteral("bannerProgress"));
    m_bannerProgress->setRange(0, 1000);
    m_bannerProgress->setTextVisible(false);
    m_bannerPercent->setObjectName(QStringLiteral("bannerPercent"));
    m_bannerPercent->setProperty("role", "secondary");
    m_retry->setObjectName(QStringLiteral("retryDownload"));
    m_retry->setProperty("role", "primary");
    m_retry->setAutoDefault(false);
    connect(m_retry, &QPushButton::clicked, this, &HomeWindow::retryDownloadRequested);
    auto *bannerLayout = new QVBoxLayout(m_banner);
    bannerLayout->setContentsMargins(14, 10, 14, 10);
    auto *bannerTop = new QHBoxLayout;
    bannerTop->addWidget(m_bannerText, 1);
    bannerTop->addWidget(m_bannerPercent);
    bannerTop->addWidget(m_retry);
    bannerLayout->addLayout(bannerTop);
    bannerLayout->addWidget(m_bannerProgress);
    auto *bannerRow = new QHBoxLayout;
    bannerRow->setContentsMargins(14, 0, 14, 0);
    bannerRow->addWidget(m_banner);
    m_banner->hide();

    auto *historyTitle = new QLabel(QStringLiteral("History"), this);
    historyTitle->setProperty("role", "heading");
    historyTitle->setContentsMargins(14, 6, 14, 0);

    auto *footer = new QLabel(QStringLiteral("Speech is recognised on this computer. Audio is never stored."), this);
    footer->setObjectName(QStringLiteral("footer"));
    footer->setProperty("role", "secondary");
    footer->setAlignment(Qt::AlignCenter);

    auto *home = new QWidget(this);
    auto *homeLayout = new QVBoxLayout(home);
    homeLayout->setContentsMargins(10, 18, 10, 10);
    homeLayout->setSpacing(10);
    homeLayout->addLayout(header);
    homeLayout->addLayout(bannerRow);
    homeLayout->addWidget(historyTitle);
    homeLayout->addWidget(m_historyView, 1);
    homeLayout->addWidget(footer);
    m_pages->addWidget(home);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_pages);

    connect(&m_state, &DictoraState::phaseChanged, this, &HomeWindow::updateHeader);
    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, &HomeWindow::updateHeader);
    updateHeader();
    applyWindowSize();
}

void HomeWindow::present()
{
    if (!m_placed) {
        // Centred the first time; later the user's placement stays.
        if (const QScreen *screen = QGuiApplication::primaryScreen()) {
            QRect frame(QPoint(0, 0), size());
            frame.moveCenter(screen->availableGeometry().center());
            move(frame.topLeft());
        }
        m_placed = true;
    }
    showNormal();
    raise();
    activateWindow();
    m_history.reload();
}

void HomeWindow::refreshIfVisible()
{
    if (isVisible())
        m_history.reload();
}

void HomeWindow::setModelPreparation(const QString &text, std::optional<double> progress, bool needsAttention)
{
    if (text.isEmpty()) {
        m_banner->hide();
        return;
    }
    m_bannerText->setText(text);
    m_bannerProgress->setVisible(progress.has_value());
    m_bannerPercent->setVisible(progress.has_value());
    if (progress) {
        const double fraction = qBound(0.0, *progress, 1.0);
        m_bannerProgress->setValue(qRound(fraction * 1000));
        m_bannerPercent->setText(QString::number(qFloor(fraction * 100)) + QLatin1Char('%'));
    }
    m_retry->setVisible(needsAttention);
    if (m_banner->property("attention").toBool() != needsAttention) {
        m_banner->setProperty("attention", needsAttention);
        m_banner->style()->unpolish(m_banner);
        m_banner->style()->polish(m_banner);
    }
    m_banner->show();
}

void HomeWindow::setOnboardingView(QWidget *view)
{
    if (m_onboardingView == view)
        return;
    if (m_onboardingView)
        m_pages->removeWidget(m_onboardingView);
    m_onboardingView = view;
    if (view)
        m_pages->addWidget(view);
    m_pages->setCurrentIndex(m_onboarding && view ? m_pages->indexOf(view) : 0);
}

void HomeWindow::setOnboardingPresented(bool presented)
{
    if (m_onboarding == presented)
        return;
    m_onboarding = presented;
    m_pages->setCurrentIndex(presented && m_onboardingView ? m_pages->indexOf(m_onboardingView) : 0);
    applyWindowSize();
}

void HomeWindow::applyWindowSize()
{
    setMinimumSize(minimumContentSize(m_onboarding));
    const QSize target = contentSize(m_onboarding);
    if (!isVisible()) {
        resize(target);
        return;
    }
    // Keep the top edge where it is and grow or shrink downwards.
    auto *animation = new QPropertyAnimation(this, "size", this);
    animation->setDuration(220);
    animation->setEasingCurve(QEasingCurve::OutCubic);
    animation->setEndValue(target);
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void HomeWindow::openAppearanceSheet()
{
    if (!m_appearance) {
        m_appearance = new AppearanceSheet(m_preferences, this);
        m_appearance->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_appearance->open();
    m_appearance->raise();
}

void HomeWindow::updateHeader()
{
    m_shortcut->setText(m_preferences.keyboardShortcut().displayText());
    m_phase->setText(m_state.phase().label());
}

} // namespace dictora
