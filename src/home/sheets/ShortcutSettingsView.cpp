#include "home/sheets/ShortcutSettingsView.h"

#include "home/sheets/ShortcutCaptureField.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

namespace dictora {

namespace {
const QString kPermissionText = QStringLiteral("Dictora needs the desktop's permission to use this shortcut in every app.");
const QString kWaitingText = QStringLiteral("Waiting for the desktop's permission…");
const QString kUnusableKey = QStringLiteral("This key cannot be used for a shortcut. Try another one.");
}

ShortcutSettingsView::ShortcutSettingsView(ProductPreferences &preferences, UpdateAction onUpdate,
                                           std::function<void()> onContinueAccessibility, QWidget *parent)
    : QDialog(parent), m_preferences(preferences), m_onUpdate(std::move(onUpdate)),
      m_onContinueAccessibility(std::move(onContinueAccessibility)), m_current(new QLabel(this)),
      m_holdToTalk(new QCheckBox(QStringLiteral("Hold to talk"), this)), m_desktopBinding(new QLabel(this)),
      m_desktopActionButton(new QPushButton(this)),
      m_field(new ShortcutCaptureField(this)), m_validation(new QLabel(this)), m_feedbackRow(new QWidget(this)),
      m_feedbackIcon(new QLabel(m_feedbackRow)), m_feedbackText(new QLabel(m_feedbackRow)),
      m_continue(new QPushButton(QStringLiteral("Continue"), m_feedbackRow)),
      m_cancel(new QPushButton(QStringLiteral("Cancel"), this)), m_update(new QPushButton(QStringLiteral("Update"), this))
{
    setObjectName(QStringLiteral("ShortcutSettingsView"));
    setWindowTitle(QStringLiteral("Keyboard Shortcut"));
    setMinimumWidth(440);

    auto *title = new QLabel(QStringLiteral("Keyboard Shortcut"), this);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    titleFont.setBold(true);
    title->setFont(titleFont);

    auto *currentRow = new QHBoxLayout;
    currentRow->addWidget(new QLabel(QStringLiteral("Current"), this));
    m_current->setObjectName(QStringLiteral("current"));
    QFont bold = m_current->font();
    bold.setBold(true);
    m_current->setFont(bold);
    currentRow->addWidget(m_current, 1);

    auto *instruction = new QLabel(QStringLiteral("Press a new shortcut, then choose Update."), this);
    instruction->setWordWrap(true);

    m_validation->setObjectName(QStringLiteral("validation"));
    m_validation->setWordWrap(true);
    QFont messageFont = m_validation->font();
    messageFont.setPointSize(13);
    messageFont.setWeight(QFont::Normal);
    m_validation->setFont(messageFont);
    QPalette warn = m_validation->palette();
    warn.setColor(QPalette::WindowText, QColor(0xC0, 0x39, 0x2B));
    m_validation->setPalette(warn);

    m_feedbackRow->setObjectName(QStringLiteral("feedback"));
    m_feedbackText->setObjectName(QStringLiteral("feedbackText"));
    m_feedbackText->setWordWrap(true);
    m_continue->setObjectName(QStringLiteral("continue"));
    m_feedbackIcon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(20, 20));
    auto *feedbackLayout = new QHBoxLayout(m_feedbackRow);
    feedbackLayout->setContentsMargins(0, 0, 0, 0);
    feedbackLayout->addWidget(m_feedbackIcon, 0, Qt::AlignTop);
    feedbackLayout->addWidget(m_feedbackText, 1);
    feedbackLayout->addWidget(m_continue, 0, Qt::AlignTop);

    m_holdToTalk->setObjectName(QStringLiteral("holdToTalk"));
    m_holdToTalk->setToolTip(QStringLiteral("Hold the shortcut while you speak; releasing it stops. A quick tap still "
                                            "starts and stops a dictation."));
    m_holdToTalk->setChecked(m_preferences.holdToTalk());
    m_holdToTalk->setFocusPolicy(Qt::NoFocus); // keys belong to the capture field
    m_desktopBinding->setObjectName(QStringLiteral("desktopBinding"));
    m_desktopBinding->setWordWrap(true);
    m_desktopBinding->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_desktopBinding->hide();
    m_desktopActionButton->setObjectName(QStringLiteral("desktopAction"));
    m_desktopActionButton->hide();

    m_cancel->setObjectName(QStringLiteral("cancel"));
    m_update->setObjectName(QStringLiteral("update"));
    // Return is a key to capture, never a button press.
    for (QPushButton *button : {m_cancel, m_update, m_continue, m_desktopActionButton}) {
        button->setAutoDefault(false);
        button->setDefault(false);
        button->setFocusPolicy(Qt::TabFocus);
    }
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_cancel);
    buttons->addWidget(m_update);

    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(10);
    layout->addWidget(title);
    layout->addLayout(currentRow);
    layout->addWidget(instruction);
    layout->addWidget(m_field);
    layout->addWidget(m_validation);
    layout->addWidget(m_feedbackRow);
    layout->addWidget(m_holdToTalk);
    layout->addWidget(m_desktopBinding);
    layout->addWidget(m_desktopActionButton, 0, Qt::AlignLeft);
    layout->addStretch(1);
    layout->addLayout(buttons);

    connect(m_field, &ShortcutCaptureField::captured, this, [this](const GlobalShortcut &shortcut) {
        m_keyRejected = false;
        setCandidate(shortcut);
    });
    connect(m_field, &ShortcutCaptureField::rejected, this, [this] {
        m_keyRejected = true;
        setCandidate(std::nullopt);
    });
    connect(m_cancel, &QPushButton::clicked, this, &QDialog::reject);
    connect(m_update, &QPushButton::clicked, this, &ShortcutSettingsView::applyCandidate);
    connect(m_continue, &QPushButton::clicked, this, &ShortcutSettingsView::continueAccessibility);
    connect(m_holdToTalk, &QCheckBox::toggled, &m_preferences, &ProductPreferences::setHoldToTalk);
    connect(m_desktopActionButton, &QPushButton::clicked, this, [this] {
        if (m_desktopAction)
            m_desktopAction();
    });
    connect(&m_preferences, &ProductPreferences::keyboardShortcutChanged, this, [this](const GlobalShortcut &now) {
        // The controller installs the waiting candidate once permission arrives.
        if (m_feedback == Feedback::waitingForPermission && m_candidate && *m_candidate == now) {
            setFeedback(Feedback::none);
            accept();
        }
        refresh();
    });
    refresh();
}

QString ShortcutSettingsView::feedbackText() const
{
    switch (m_feedback) {
    case Feedback::failure:
        return m_failure;
    case Feedback::permissionRequired:
        return kPermissionText;
    case Feedback::waitingForPermission:
        return kWaitingText;
    case Feedback::none:
        break;
    }
    return {};
}

QString ShortcutSettingsView::validationMessage() const
{
    if (m_keyRejected)
        return kUnusableKey;
    if (!m_candidate)
        return {};
    const GlobalShortcutValidation validation = GlobalShortcutValidator::validate(*m_candidate);
    return validation.valid ? QString() : validation.message;
}

QString ShortcutSettingsView::currentText() const
{
    return m_current->text();
}

bool ShortcutSettingsView::canUpdate() const
{
    return m_candidate && GlobalShortcutValidator::validate(*m_candidate).valid && m_onUpdate;
}

void ShortcutSettingsView::setCandidate(const std::optional<GlobalShortcut> &candidate)
{
    m_candidate = candidate;
    // A new key press starts over: old feedback was about another candidate.
    setFeedback(Feedback::none);
}

void ShortcutSettingsView::applyCandidate()
{
    if (!canUpdate())
        return;
    const ShortcutUpdateResult result = m_onUpdate(*m_candidate);
    switch (result.kind) {
    case ShortcutUpdateResult::Kind::updated:
        setFeedback(Feedback::none);
        accept();
        break;
    case ShortcutUpdateResult::Kind::needsAccessibility:
        setFeedback(Feedback::permissionRequired);
        break;
    case ShortcutUpdateResult::Kind::waitingForDesktop:
        setFeedback(Feedback::waitingForPermission);
        break;
    case ShortcutUpdateResult::Kind::failed:
        setFeedback(Feedback::failure,
                    result.message.isEmpty() ? GlobalShortcutValidator::fallbackMessage() : result.message);
        break;
    }
}

void ShortcutSettingsView::continueAccessibility()
{
    if (m_feedback != Feedback::permissionRequired)
        return;
    setFeedback(Feedback::waitingForPermission);
    if (m_onContinueAccessibility)
        m_onContinueAccessibility();
}

void ShortcutSettingsView::updateRefused(const QString &reason)
{
    if (m_feedback != Feedback::waitingForPermission)
        return;
    setFeedback(Feedback::failure, QStringLiteral("The desktop did not take that shortcut; your previous one still works.%1")
                                       .arg(reason.isEmpty() ? QString() : QLatin1Char(' ') + reason));
}

void ShortcutSettingsView::setFeedback(Feedback feedback, const QString &failure)
{
    m_feedback = feedback;
    m_failure = feedback == Feedback::failure ? failure : QString();
    refresh();
}

void ShortcutSettingsView::refresh()
{
    m_current->setText(m_preferences.keyboardShortcut().displayText());
    m_field->setShortcut(m_candidate);
    const QString message = validationMessage();
    m_validation->setText(message);
    m_validation->setVisible(!message.isEmpty());
    m_feedbackText->setText(feedbackText());
    m_feedbackRow->setVisible(m_feedback != Feedback::none);
    m_feedbackIcon->setVisible(m_feedback == Feedback::permissionRequired);
    m_continue->setVisible(m_feedback == Feedback::permissionRequired);
    m_update->setEnabled(canUpdate());
}

void ShortcutSettingsView::setDesktopBinding(const QString &text, const QString &actionLabel, std::function<void()> action)
{
    m_desktopBinding->setText(text);
    m_desktopBinding->setVisible(!text.isEmpty());
    m_desktopAction = std::move(action);
    m_desktopActionButton->setText(actionLabel);
    m_desktopActionButton->setVisible(!text.isEmpty() && !actionLabel.isEmpty() && m_desktopAction);
}

QString ShortcutSettingsView::desktopBindingText() const
{
    return m_desktopBinding->text();
}

} // namespace dictora
