#include "onboarding/ui/OnboardingView.h"

#include "core/Async.h"
#include "history/HistoryFilter.h"
#include "onboarding/ui/BundledFonts.h"
#include "onboarding/ui/OnboardingIllustrations.h"
#include "onboarding/ui/OnboardingStageShell.h"

#include <QButtonGroup>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QSlider>
#include <QStackedWidget>

namespace dictora {

namespace {

constexpr int kTypingIntervalMs = 140;

QLabel *makeLabel(const QString &text, const QString &objectName, QWidget *parent)
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

QString shortcutLabel(const ProductPreferences &preferences)
{
    return preferences.keyboardShortcut().displayText();
}

} // namespace

QString firstSearchWord(const QString &transcript)
{
    static const QRegularExpression word(QStringLiteral("[\\w'’-]+"), QRegularExpression::UseUnicodePropertiesOption);
    const auto match = word.match(transcript);
    return match.hasMatch() ? match.captured(0) : transcript.trimmed();
}

OnboardingView::OnboardingView(OnboardingModel &model, DictoraState &state, ProductPreferences &preferences,
                               std::optional<TranscriptJournal> journal, OnboardingActions actions, QWidget *parent)
    : QWidget(parent), m_model(model), m_state(state), m_preferences(preferences), m_journal(std::move(journal)),
      m_actions(std::move(actions)), m_stack(new QStackedWidget(this))
{
    setObjectName(QStringLiteral("OnboardingView"));
    for (OnboardingStage stage : allOnboardingStages()) {
        auto *shell = new OnboardingStageShell(m_stack);
        m_screens.emplace(stage, shell);
        m_stack->addWidget(shell);
    }
    buildPermissions();
    buildMicrophonePosition();
    buildSnippets();
    buildPractice();
    buildSavedProof();
    buildSearchProof();
    buildReady();

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_stack);

    m_typing.setInterval(kTypingIntervalMs);
    connect(&m_typing, &QTimer::timeout, this, &OnboardingView::typeNextSearchCharacter);

    connect(&m_model, &OnboardingModel::changed, this, &OnboardingView::refresh);
    connect(&m_state, &DictoraState::phaseChanged, this, &OnboardingView::refreshPractice);
    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, &OnboardingView::refresh);
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
    refresh();
}

OnboardingView::~OnboardingView() = default;

void OnboardingView::refreshPermissionReasons()
{
    refreshPermissions();
}

void OnboardingView::setModelPreparation(const ModelPreparation &preparation)
{
    m_preparation = preparation;
    refreshPermissions();
}

OnboardingStage OnboardingView::shownStage() const
{
    for (auto &[stage, shell] : m_screens)
        if (shell == m_stack->currentWidget())
            return stage;
    return OnboardingStage::permissions;
}

OnboardingStageShell *OnboardingView::currentScreen() const
{
    return static_cast<OnboardingStageShell *>(m_stack->currentWidget());
}

void OnboardingView::buildPermissions()
{
    auto *shell = m_screens.at(OnboardingStage::permissions);
    m_guidance = makeLabel(QStringLiteral("CLICK ALLOW."), QStringLiteral("guidance"), shell);
    m_guidance->setFont(displayFont(22));
    m_percent = makeLabel(QString(), QStringLiteral("percent"), shell);
    m_percent->setFont(displayFont(28));
    m_progress = new QProgressBar(shell);
    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setRange(0, 100);
    m_progress->setTextVisible(false);
    m_progress->setMaximumHeight(10);
    m_allowMicrophone = makeDisplayButton(QStringLiteral("ALLOW MICROPHONE"), QStringLiteral("allowMicrophone"), shell);
    m_microphoneSettings =
        makeDisplayButton(QStringLiteral("OPEN MICROPHONE SETTINGS"), QStringLiteral("openMicrophoneSettings"), shell);
    m_accessibilitySettings = makeDisplayButton(QStringLiteral("OPEN ACCESSIBILITY SETTINGS"),
                                                QStringLiteral("openAccessibilitySettings"), shell);
    m_retryDownload = makeDisplayButton(QStringLiteral("RETRY DOWNLOAD"), QStringLiteral("retryDownload"), shell);

    auto run = [](const std::function<void()> &action) {
        if (action)
            action();
    };
    connect(m_allowMicrophone, &QPushButton::clicked, this, [this, run] { run(m_actions.requestMicrophone); });
    connect(m_microphoneSettings, &QPushButton::clicked, this, [this, run] { run(m_actions.openMicrophoneSettings); });
    connect(m_accessibilitySettings, &QPushButton::clicked, this,
            [this, run] { run(m_actions.openAccessibilitySettings); });
    connect(m_retryDownload, &QPushButton::clicked, this, [this, run] { run(m_actions.retryDownload); });

    auto *content = shell->content();
    content->addWidget(m_guidance);
    content->addWidget(m_percent);
    content->addWidget(m_progress);
    content->addStretch(1);
    for (QPushButton *button : {m_allowMicrophone, m_microphoneSettings, m_accessibilitySettings, m_retryDownload})
        content->addWidget(button);
}

void OnboardingView::buildMicrophonePosition()
{
    auto *shell = m_screens.at(OnboardingStage::microphonePosition);
    shell->setHeadline(QStringLiteral("CLICK A DIFFERENT SPOT TO MOVE THE MIC"));
    shell->setDetail(QStringLiteral("Try position, size, and opacity. The preview updates instantly."));
    auto *content = shell->content();

    m_preview = new PlacementPreview(shell);
    m_preview->setObjectName(QStringLiteral("placementPreview"));
    m_preview->setAnchor(m_preferences.microphoneLocation());
    m_preview->setOverlaySize(m_preferences.microphoneSize());
    m_preview->setOverlayOpacity(m_preferences.microphoneOpacity());
    connect(m_preview, &PlacementPreview::anchorChosen, &m_preferences, &ProductPreferences::setMicrophoneLocation);
    content->addWidget(m_preview, 1);

    auto *placeholder = makeLabel(QStringLiteral("Your words appear here"), QStringLiteral("wordsPlaceholder"), shell);
    placeholder->setAlignment(Qt::AlignCenter);
    placeholder->setEnabled(false);
    content->addWidget(placeholder);

    auto *controls = new QHBoxLayout;
    auto *sizeLabel = makeLabel(QStringLiteral("SIZE"), QStringLiteral("sizeLabel"), shell);
    sizeLabel->setFont(displayFont(18));
    controls->addWidget(sizeLabel);
    m_sizes = new QButtonGroup(shell);
    m_sizes->setExclusive(true);
    const QStringList names{QStringLiteral("Small"), QStringLiteral("Medium"), QStringLiteral("Large")};
    for (int i = 0; i < allOverlaySizes().size(); ++i) {
        auto *button = new QPushButton(names.value(i), shell);
        button->setObjectName(QStringLiteral("size-") + rawValue(allOverlaySizes().at(i)));
        button->setCheckable(true);
        button->setChecked(allOverlaySizes().at(i) == m_preferences.microphoneSize());
        m_sizes->addButton(button, i);
        controls->addWidget(button);
    }
    connect(m_sizes, &QButtonGroup::idClicked, this,
            [this](int id) { m_preferences.setMicrophoneSize(allOverlaySizes().value(id, OverlaySize::medium)); });
    controls->addSpacing(16);
    controls->addWidget(makeLabel(QStringLiteral("Opacity"), QStringLiteral("opacityLabel"), shell));
    m_opacity = new QSlider(Qt::Horizontal, shell);
    m_opacity->setObjectName(QStringLiteral("opacity"));
    m_opacity->setRange(qRound(ProductPreferences::kMinimumOpacity * 100), qRound(ProductPreferences::kMaximumOpacity * 100));
    m_opacity->setValue(qRound(m_preferences.microphoneOpacity() * 100));
    connect(m_opacity, &QSlider::valueChanged, this,
            [this](int value) { m_preferences.setMicrophoneOpacity(value / 100.0); });
    controls->addWidget(m_opacity, 1);
    content->addLayout(controls);

    auto *menuBar = new MenuBarIllustration(shell);
    content->addWidget(menuBar);
    content->addWidget(makeLabel(QStringLiteral("Your microphone now lives in the menu bar at the top of your desktop."),
                                 QStringLiteral("menuBarNote"), shell));
    content->addWidget(makeLabel(QStringLiteral("Click the Dictora microphone in your panel's tray"),
                                 QStringLiteral("menuBarHint"), shell));

    auto *next = makeDisplayButton(QStringLiteral("NEXT: SNIPPETS"), QStringLiteral("next"), shell);
    connect(next, &QPushButton::clicked, this, [this] { m_model.setStage(OnboardingStage::snippets); });
    content->addWidget(next);
}

void OnboardingView::buildSnippets()
{
    auto *shell = m_screens.at(OnboardingStage::snippets);
    shell->setHeadline(QStringLiteral("SAY LESS. PASTE MORE."));
    shell->setDetail(QStringLiteral(
        "Snippets replace a phrase you say with longer text you use often. Everything happens locally."));
    auto *content = shell->content();

    auto *card = makeCard(shell);
    card->setObjectName(QStringLiteral("exampleSnippet"));
    auto *row = new QHBoxLayout(card);
    auto *trigger = makeLabel(QStringLiteral("my email"), QStringLiteral("exampleTrigger"), card);
    QFont bold = trigger->font();
    bold.setBold(true);
    trigger->setFont(bold);
    row->addWidget(trigger);
    row->addWidget(makeLabel(QStringLiteral("→"), QStringLiteral("arrow"), card), 0);
    row->addWidget(makeLabel(QStringLiteral("jordan.lee@example.com"), QStringLiteral("exampleExpansion"), card), 1);
    content->addWidget(card);
    content->addStretch(1);

    auto *use = makeDisplayButton(QStringLiteral("USE SNIPPETS"), QStringLiteral("useSnippets"), shell);
    connect(use, &QPushButton::clicked, this, [this] {
        m_preferences.setSnippetsEnabled(true);
        if (m_actions.openSnippets)
            m_actions.openSnippets();
    });
    auto *next = makeDisplayButton(QStringLiteral("NEXT: TEST YOUR MIC"), QStringLiteral("next"), shell);
    connect(next, &QPushButton::clicked, this, [this] { m_model.finishConfiguration(); });
    content->addWidget(use);
    content->addWidget(next);
}

void OnboardingView::buildPractice()
{
    auto *shell = m_screens.at(OnboardingStage::practice);
    m_keyboard = new KeyboardIllustration(shell);
    m_keyboard->setObjectName(QStringLiteral("keyboard"));
    shell->content()->addWidget(m_keyboard, 1);
}

void OnboardingView::buildSavedProof()
{
    auto *shell = m_screens.at(OnboardingStage::savedProof);
    shell->setEyebrow(QStringLiteral("SAVED ON THIS COMPUTER"));
    shell->setHeadline(QStringLiteral("NOTHING GOT LOST."));
    shell->setDetail(QStringLiteral("Your exact words are already in History with their timestamp."));
    auto *card = makeCard(shell);
    card->setObjectName(QStringLiteral("savedCard"));
    auto *layout = new QVBoxLayout(card);
    m_savedTime = makeLabel(QString(), QStringLiteral("savedTime"), card);
    m_savedTime->setEnabled(false);
    m_savedText = makeLabel(QString(), QStringLiteral("savedTranscript"), card);
    m_savedText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont f = m_savedText->font();
    f.setPointSizeF(f.pointSizeF() * 1.3);
    m_savedText->setFont(f);
    layout->addWidget(m_savedTime);
    layout->addWidget(m_savedText);
    shell->content()->addWidget(card);
    shell->content()->addStretch(1);
    auto *next = makeDisplayButton(QStringLiteral("SHOW ME SEARCH"), QStringLiteral("next"), shell);
    connect(next, &QPushButton::clicked, this, [this] { m_model.setStage(OnboardingStage::searchProof); });
    shell->content()->addWidget(next);
}

void OnboardingView::buildSearchProof()
{
    auto *shell = m_screens.at(OnboardingStage::searchProof);
    shell->setHeadline(QStringLiteral("EVERY WORD. FOREVER."));
    shell->setDetail(QStringLiteral("Watch your first word find the exact saved transcript."));
    m_searchField = new QLineEdit(shell);
    m_searchField->setObjectName(QStringLiteral("searchField"));
    m_searchField->setReadOnly(true);
    m_searchField->setPlaceholderText(QStringLiteral("Search"));
    m_searchField->setClearButtonEnabled(false);
    m_searchResults = new QListWidget(shell);
    m_searchResults->setObjectName(QStringLiteral("searchResults"));
    m_searchResults->setFocusPolicy(Qt::NoFocus);
    m_searchResults->setWordWrap(true);
    m_searchNext = makeDisplayButton(QStringLiteral("NEXT"), QStringLiteral("next"), shell);
    m_searchNext->setEnabled(false);
    connect(m_searchNext, &QPushButton::clicked, this, [this] { m_model.setStage(OnboardingStage::ready); });
    shell->content()->addWidget(m_searchField);
    m_searchResults->setMaximumHeight(260);
    m_searchResults->setSpacing(4);
    shell->content()->addWidget(m_searchResults);
    shell->content()->addStretch(1);
    shell->content()->addWidget(m_searchNext);
}

void OnboardingView::buildReady()
{
    auto *shell = m_screens.at(OnboardingStage::ready);
    shell->setHeadline(QStringLiteral("YOU'RE ALL DONE."));
    shell->content()->addStretch(1);
    auto *done = makeDisplayButton(QStringLiteral("I'M ALL DONE"), QStringLiteral("finish"), shell);
    connect(done, &QPushButton::clicked, this, [this] {
        if (m_actions.finish)
            m_actions.finish();
    });
    shell->content()->addWidget(done);
}

void OnboardingView::refresh()
{
    const OnboardingStage stage = m_model.stage();
    m_stack->setCurrentWidget(m_screens.at(stage));
    if (m_lastStage != stage) {
        m_lastStage = stage;
        stageEntered(stage);
    }
    refreshPermissions();
    refreshPractice();
    refreshSavedProof();
    refreshReady();
}

void OnboardingView::stageEntered(OnboardingStage stage)
{
    if (stage == OnboardingStage::practice)
        m_practiceAttempted = false;
    if (stage == OnboardingStage::searchProof) {
        startSearchAnimation();
    } else {
        m_typing.stop();
    }
}

void OnboardingView::refreshPermissions()
{
    auto *shell = m_screens.at(OnboardingStage::permissions);
    const OnboardingPermissionSnapshot permissions = m_model.permissions();
    const bool busy = m_model.isRequestingPermissions();
    const auto reason = [](const std::function<QString()> &provider) { return provider ? provider() : QString(); };

    for (QWidget *w : std::initializer_list<QWidget *>{m_guidance, m_percent, m_progress, m_allowMicrophone,
                                                        m_microphoneSettings, m_accessibilitySettings, m_retryDownload})
        w->hide();

    if (permissions.microphone != OnboardingPermissionStatus::authorized) {
        shell->setEyebrow(QStringLiteral("STEP 1 OF 2"));
        shell->setHeadline(QStringLiteral("TURN ON YOUR MICROPHONE."));
        shell->setDetail(reason(m_actions.microphoneReason));
        // Until the first check has answered, asking is the way forward; a
        // refusal is fixed in the sound settings.
        if (permissions.microphone == OnboardingPermissionStatus::notDetermined)
            m_allowMicrophone->show();
        else
            m_microphoneSettings->show();
    } else if (permissions.accessibility != OnboardingPermissionStatus::authorized) {
        shell->setEyebrow(QStringLiteral("STEP 2 OF 2"));
        shell->setHeadline(QStringLiteral("TURN ON DICTORA."));
        shell->setDetail(reason(m_actions.accessibilityReason));
        const QString buttonText = reason(m_actions.accessibilityButtonText);
        m_accessibilitySettings->setText(buttonText.isEmpty() ? QStringLiteral("OPEN ACCESSIBILITY SETTINGS") : buttonText);
        m_guidance->show();
        m_accessibilitySettings->show();
    } else if (m_model.accuracyModelReady()) {
        shell->setEyebrow(QString());
        shell->setHeadline(QStringLiteral("PERMISSIONS DONE."));
        shell->setDetail(QStringLiteral("Opening your microphone test…"));
    } else {
        shell->setEyebrow(QStringLiteral("AUTOMATIC SETUP"));
        shell->setHeadline(QStringLiteral("GETTING ACCURATE."));
        shell->setDetail(
            QStringLiteral("Keep going—there is nothing to choose or install. Dictora is doing this for you."));
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

void OnboardingView::refreshPractice()
{
    auto *shell = m_screens.at(OnboardingStage::practice);
    const QString key = shortcutLabel(m_preferences);
    m_keyboard->setKeyLabel(m_preferences.keyboardShortcut().keyLabel);
    const DictoraPhase phase = m_state.phase();
    bool flashing = false;
    switch (phase.kind()) {
    case DictoraPhase::Kind::preparing:
        if (m_model.stage() == OnboardingStage::practice)
            m_practiceAttempted = true;
        shell->setHeadline(QStringLiteral("YOUR MIC IS OPENING."));
        shell->setDetail(QStringLiteral("Do nothing. You will see your voice move."));
        break;
    case DictoraPhase::Kind::recording:
        if (m_model.stage() == OnboardingStage::practice)
            m_practiceAttempted = true;
        flashing = true;
        shell->setHeadline(QStringLiteral("FINISH SPEAKING. THEN PRESS THIS AGAIN."));
        shell->setDetail(QStringLiteral("Speak one short sentence. When finished, press the flashing key."));
        break;
    case DictoraPhase::Kind::finalizing:
        shell->setHeadline(QStringLiteral("SAVING YOUR WORDS."));
        shell->setDetail(QStringLiteral("Do nothing. It is being written safely to this computer."));
        break;
    case DictoraPhase::Kind::error:
    case DictoraPhase::Kind::idle:
    case DictoraPhase::Kind::needsAccessibility:
        flashing = true;
        if (m_practiceAttempted) {
            // Still on this screen after a dictation: it gave no words.
            shell->setHeadline(QStringLiteral("PRESS ") + key + QStringLiteral(" TO TRY AGAIN."));
            shell->setDetail(phase.is(DictoraPhase::Kind::error) ? phase.message() : QString());
        } else {
            shell->setHeadline(QStringLiteral("PRESS THIS KEY."));
            shell->setDetail(QStringLiteral("It is directly below Esc. One press starts your mic."));
        }
        break;
    }
    m_keyboard->setFlashing(flashing && m_model.stage() == OnboardingStage::practice);
}

void OnboardingView::refreshSavedProof()
{
    m_savedText->setText(m_model.practiceTranscript());
    const auto savedAt = m_model.practiceSavedAt();
    m_savedTime->setText(savedAt ? QLocale().toString(savedAt->toLocalTime(), QLocale::LongFormat) : QString());
}

void OnboardingView::refreshReady()
{
    m_screens.at(OnboardingStage::ready)->setDetail(QStringLiteral("Press ") + shortcutLabel(m_preferences));
}

void OnboardingView::startSearchAnimation()
{
    m_searchFinished = false;
    m_searchNext->setEnabled(false);
    m_searchField->clear();
    m_searchResults->clear();
    m_searchWord = firstSearchWord(m_model.practiceTranscript());
    m_searchRecords.clear();
    m_searchKeys.clear();
    if (!m_journal) {
        m_typing.start();
        return;
    }
    // Its own read of the journal, so the History window's search stays as the user left it.
    struct Read {
        QList<TranscriptRecord> records;
        QList<QString> keys;
    };
    runElsewhere(this,
        [journal = *m_journal] {
            Read read;
            try {
                read.records = journal.readAll();
            } catch (...) {
                // Unreadable: the animation still shows the practice text.
            }
            for (const TranscriptRecord &record : read.records)
                read.keys.append(HistoryFilter::searchKey(record.transcript));
            return read;
        },
        [this](Read read) {
            m_searchRecords = std::move(read.records);
            m_searchKeys = std::move(read.keys);
            if (m_model.stage() == OnboardingStage::searchProof && !m_searchFinished)
                m_typing.start();
        });
}

void OnboardingView::typeNextSearchCharacter()
{
    const QString typed = m_searchField->text();
    if (typed.size() >= m_searchWord.size()) {
        finishSearchAnimation();
        return;
    }
    m_searchField->setText(m_searchWord.left(typed.size() + 1));
    showSearchResults(false);
}

void OnboardingView::finishSearchAnimation()
{
    if (m_searchFinished)
        return;
    m_typing.stop();
    m_searchField->setText(m_searchWord);
    showSearchResults(true);
    m_searchFinished = true;
    m_searchNext->setEnabled(true);
    Q_EMIT searchAnimationFinished();
}

void OnboardingView::showSearchResults(bool final)
{
    const QString practice = m_model.practiceTranscript();
    QList<TranscriptRecord> found;
    if (!m_searchRecords.isEmpty()) {
        HistoryQuery query;
        query.search = m_searchField->text();
        found = HistoryFilter::apply(m_searchRecords, m_searchKeys, query);
    } else if (practice.contains(m_searchField->text(), Qt::CaseInsensitive)) {
        TranscriptRecord record;
        record.transcript = practice;
        if (m_model.practiceSavedAt())
            record.savedAt = *m_model.practiceSavedAt();
        found.append(record);
    }
    m_searchResults->clear();
    for (const TranscriptRecord &record : found) {
        const QString when = QLocale().toString(record.savedAt.toLocalTime(), QLocale::ShortFormat);
        auto *item = new QListWidgetItem(record.transcript + QStringLiteral("\n") + when, m_searchResults);
        const bool isPractice = record.transcript.trimmed() == practice;
        item->setData(Qt::UserRole, isPractice);
        if (final && isPractice) {
            QFont f = item->font();
            f.setBold(true);
            item->setFont(f);
            item->setBackground(QColor(255, 90, 54, 70));
            m_searchResults->setCurrentItem(item);
            m_searchResults->scrollToItem(item);
        }
    }
}

} // namespace dictora
