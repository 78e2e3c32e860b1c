#include "home/sheets/ShortcutCaptureField.h"

#include "shortcut/KeyCodes.h"
#include "shortcut/ShortcutKeyLabel.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QTimer>

namespace dictora {

namespace {
std::optional<QString> charactersOf(const QKeyEvent &event)
{
    const QString text = event.text();
    bool printable = !text.isEmpty();
    for (QChar c : text)
        printable = printable && c.isPrint();
    if (printable)
        return text;
    // With Ctrl held the event carries a control character; the key's own
    // character is what the label wants.
    const int key = event.key();
    if (key >= Qt::Key_Space && key <= Qt::Key_AsciiTilde)
        return QString(QChar(key)).toLower();
    return std::nullopt;
}
} // namespace

ShortcutCaptureField::ShortcutCaptureField(QWidget *parent) : QFrame(parent), m_text(new QLabel(this))
{
    setObjectName(QStringLiteral("captureField"));
    setFocusPolicy(Qt::StrongFocus);
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Base);
    setMinimumHeight(44);
    setAccessibleName(QStringLiteral("Shortcut"));
    m_text->setAlignment(Qt::AlignCenter);
    QFont f = m_text->font();
    f.setPointSizeF(f.pointSizeF() * 1.4);
    f.setBold(true);
    m_text->setFont(f);
    auto *layout = new QHBoxLayout(this);
    layout->addWidget(m_text);
    setShortcut(std::nullopt);
}

void ShortcutCaptureField::setShortcut(const std::optional<GlobalShortcut> &shortcut)
{
    m_text->setText(shortcut ? shortcut->displayText() : QStringLiteral("Press keys now"));
    m_text->setEnabled(shortcut.has_value());
}

bool ShortcutCaptureField::isModifierKey(int qtKey)
{
    switch (qtKey) {
    case Qt::Key_Control:
    case Qt::Key_Shift:
    case Qt::Key_Alt:
    case Qt::Key_AltGr:
    case Qt::Key_Meta:
    case Qt::Key_Super_L:
    case Qt::Key_Super_R:
    case Qt::Key_Hyper_L:
    case Qt::Key_Hyper_R:
    case Qt::Key_CapsLock:
    case Qt::Key_NumLock:
        return true;
    default:
        return false;
    }
}

std::optional<GlobalShortcut> ShortcutCaptureField::shortcutFromKeyEvent(const QKeyEvent &event)
{
    if (isModifierKey(event.key()))
        return std::nullopt;
    const auto keyCode = KeyCodes::keyCodeFromXkbKeycode(event.nativeScanCode());
    if (!keyCode)
        return std::nullopt;
    GlobalShortcut shortcut;
    shortcut.keyCode = *keyCode;
    shortcut.modifiers = GlobalShortcutModifiers::fromQt(event.modifiers());
    shortcut.keyLabel = ShortcutKeyLabel::label(*keyCode, charactersOf(event));
    return shortcut;
}

bool ShortcutCaptureField::event(QEvent *event)
{
    // Tab would otherwise move the focus instead of being captured.
    if (event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
            keyPressEvent(key);
            return true;
        }
    }
    return QFrame::event(event);
}

void ShortcutCaptureField::keyPressEvent(QKeyEvent *event)
{
    event->accept();
    if (isModifierKey(event->key()))
        return; // a chord is still being built
    if (auto shortcut = shortcutFromKeyEvent(*event))
        Q_EMIT captured(*shortcut);
    else
        Q_EMIT rejected();
}

void ShortcutCaptureField::showEvent(QShowEvent *event)
{
    QFrame::showEvent(event);
    // Capture starts as soon as the sheet is up.
    QTimer::singleShot(0, this, [this] { setFocus(Qt::OtherFocusReason); });
}

void ShortcutCaptureField::focusInEvent(QFocusEvent *event)
{
    QFrame::focusInEvent(event);
    setStyleSheet(QStringLiteral("dictora--ShortcutCaptureField { border: 2px solid palette(highlight); border-radius: 6px; }"));
}

void ShortcutCaptureField::focusOutEvent(QFocusEvent *event)
{
    QFrame::focusOutEvent(event);
    setStyleSheet(QString());
}

void ShortcutCaptureField::mousePressEvent(QMouseEvent *event)
{
    setFocus(Qt::MouseFocusReason);
    QFrame::mousePressEvent(event);
}

} // namespace dictora
