#include "home/sheets/SettingsToggleCard.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QSignalBlocker>

namespace dictora {

ToggleSwitch::ToggleSwitch(QWidget *parent) : QAbstractButton(parent)
{
    setCheckable(true);
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void ToggleSwitch::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
    const double radius = track.height() / 2;
    QColor on(0xFF, 0x5A, 0x36);
    QColor off = palette().color(QPalette::Mid);
    if (!isEnabled()) {
        on.setAlphaF(0.4);
        off.setAlphaF(0.4);
    }
    p.setPen(hasFocus() ? QPen(palette().color(QPalette::Highlight), 1.5) : Qt::NoPen);
    p.setBrush(isChecked() ? on : off);
    p.drawRoundedRect(track, radius, radius);
    const double knob = track.height() - 4;
    const double x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
}

SettingsToggleCard::SettingsToggleCard(const QString &title, QWidget *parent)
    : QFrame(parent), m_title(new QLabel(title, this)), m_switch(new ToggleSwitch(this))
{
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Base);
    QFont f = m_title->font();
    f.setBold(true);
    f.setLetterSpacing(QFont::AbsoluteSpacing, 0.8);
    m_title->setFont(f);
    m_title->setBuddy(m_switch);
    m_switch->setAccessibleName(title);
    m_switch->setCursor(Qt::PointingHandCursor);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(14, 10, 14, 10);
    layout->addWidget(m_title, 1);
    layout->addWidget(m_switch);
    connect(m_switch, &ToggleSwitch::toggled, this, &SettingsToggleCard::toggled);
}

QString SettingsToggleCard::title() const
{
    return m_title->text();
}

bool SettingsToggleCard::isOn() const
{
    return m_switch->isChecked();
}

void SettingsToggleCard::setOn(bool on)
{
    const QSignalBlocker quiet(m_switch);
    m_switch->setChecked(on);
}

} // namespace dictora
