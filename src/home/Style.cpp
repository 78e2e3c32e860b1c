#include "home/Style.h"

#include <QApplication>
#include <QIconEngine>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QStyleFactory>

namespace dictora::Style {

namespace {

Colors g_colors = colorsFor(false);

QString css(const QColor &c)
{
    return c.alpha() == 255 ? c.name() : QStringLiteral("rgba(%1,%2,%3,%4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

class SymbolEngine : public QIconEngine {
public:
    explicit SymbolEngine(Symbol s) : m_symbol(s) {}

    void paint(QPainter *p, const QRect &rect, QIcon::Mode mode, QIcon::State) override
    {
        QColor ink = colors().text;
        if (mode == QIcon::Disabled)
            ink = colors().secondaryText;
        else if (mode == QIcon::Selected)
            ink = colors().accentText;
        p->save();
        p->setRenderHint(QPainter::Antialiasing);
        const qreal side = qMin(rect.width(), rect.height());
        p->translate(rect.center() - QPointF(side / 2, side / 2) + QPointF(0.5, 0.5));
        p->scale(side / 16.0, side / 16.0);
        QPen pen(ink, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        p->setPen(pen);
        p->setBrush(Qt::NoBrush);
        switch (m_symbol) {
        case Symbol::magnifyingGlass:
            p->drawEllipse(QPointF(6.5, 6.5), 4.2, 4.2);
            p->drawLine(QPointF(9.6, 9.6), QPointF(14, 14));
            break;
        case Symbol::clearField: {
            p->setPen(Qt::NoPen);
            p->setBrush(colors().secondaryText);
            p->drawEllipse(QPointF(8, 8), 7, 7);
            p->setPen(QPen(colors().surface, 1.6, Qt::SolidLine, Qt::RoundCap));
            p->drawLine(QPointF(5.5, 5.5), QPointF(10.5, 10.5));
            p->drawLine(QPointF(10.5, 5.5), QPointF(5.5, 10.5));
            break;
        }
        case Symbol::filter:
            p->drawLine(QPointF(2, 4), QPointF(14, 4));
            p->drawLine(QPointF(4.5, 8), QPointF(11.5, 8));
            p->drawLine(QPointF(6.5, 12), QPointF(9.5, 12));
            break;
        case Symbol::copy:
            p->drawRoundedRect(QRectF(5.5, 5.5, 8, 9), 1.5, 1.5);
            p->drawPolyline(QPolygonF({QPointF(3, 11), QPointF(2.5, 11), QPointF(2.5, 2.5), QPointF(10, 2.5), QPointF(10, 3)}));
            break;
        case Symbol::checkmark:
            p->setPen(QPen(colors().accent, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            p->drawPolyline(QPolygonF({QPointF(3, 8.5), QPointF(6.5, 12), QPointF(13, 4.5)}));
            break;
        case Symbol::archive:
            p->drawRoundedRect(QRectF(2, 3, 12, 3.5), 1, 1);
            p->drawRect(QRectF(3, 6.5, 10, 7));
            p->drawLine(QPointF(6.5, 9), QPointF(9.5, 9));
            break;
        case Symbol::gear:
            p->drawEllipse(QPointF(8, 8), 2.3, 2.3);
            for (int i = 0; i < 8; ++i) {
                p->save();
                p->translate(8, 8);
                p->rotate(i * 45);
                p->drawLine(QPointF(0, 4.2), QPointF(0, 6.3));
                p->restore();
            }
            p->drawEllipse(QPointF(8, 8), 4.6, 4.6);
            break;
        case Symbol::keyboard:
            p->drawRoundedRect(QRectF(1.5, 4, 13, 8.5), 1.5, 1.5);
            for (int i = 0; i < 4; ++i)
                p->drawPoint(QPointF(4 + i * 2.7, 6.8));
            p->drawLine(QPointF(5, 9.8), QPointF(11, 9.8));
            break;
        case Symbol::snippets:
            p->drawLine(QPointF(2.5, 4), QPointF(13.5, 4));
            p->drawLine(QPointF(2.5, 8), QPointF(10, 8));
            p->drawLine(QPointF(2.5, 12), QPointF(12, 12));
            break;
        }
        p->restore();
    }

    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state) override
    {
        return scaledPixmap(size, mode, state, 1.0);
    }

    QPixmap scaledPixmap(const QSize &size, QIcon::Mode mode, QIcon::State state, qreal scale) override
    {
        QPixmap pm(size * scale);
        pm.setDevicePixelRatio(scale);
        pm.fill(Qt::transparent);
        QPainter p(&pm);
        paint(&p, QRect(QPoint(0, 0), size), mode, state);
        return pm;
    }

    QIconEngine *clone() const override { return new SymbolEngine(m_symbol); }

private:
    Symbol m_symbol;
};

} // namespace

bool prefersDark(const QPalette &desktop)
{
    return desktop.color(QPalette::Window).lightness() < 128;
}

Colors colorsFor(bool dark)
{
    Colors c;
    c.dark = dark;
    if (dark) {
        c.window = QColor(0x2b, 0x2b, 0x2e);
        c.surface = QColor(0x36, 0x36, 0x3a);
        c.raised = QColor(0x44, 0x44, 0x49);
        c.text = QColor(0xf2, 0xf2, 0xf4);
        c.secondaryText = QColor(0xa8, 0xa8, 0xb0);
        c.border = QColor(0x52, 0x52, 0x58);
        c.accent = QColor(0x5e, 0x9c, 0xff);
        c.accentText = QColor(0x0c, 0x16, 0x26);
        c.warning = QColor(0xff, 0xb0, 0x4a);
        c.badge = QColor(0x2f, 0x4a, 0x6e);
        c.badgeText = QColor(0xd6, 0xe6, 0xff);
    } else {
        c.window = QColor(0xec, 0xec, 0xee);
        c.surface = QColor(0xff, 0xff, 0xff);
        c.raised = QColor(0xe4, 0xec, 0xfa);
        c.text = QColor(0x1d, 0x1d, 0x21);
        c.secondaryText = QColor(0x5f, 0x61, 0x68);
        c.border = QColor(0xd2, 0xd2, 0xd7);
        c.accent = QColor(0x1f, 0x63, 0xd6);
        c.accentText = QColor(0xff, 0xff, 0xff);
        c.warning = QColor(0xa8, 0x5a, 0x00);
        c.badge = QColor(0xe1, 0xea, 0xfb);
        c.badgeText = QColor(0x1a, 0x4d, 0xa6);
    }
    return c;
}

const Colors &colors()
{
    return g_colors;
}

QString styleSheet(const Colors &c)
{
    return QStringLiteral(R"(
QWidget#DictoraMainWindow, QDialog { background: %1; }
QLabel { color: %2; }
QLabel[role="title"] { font-size: 20pt; font-weight: 700; }
QLabel[role="heading"] { font-size: 14pt; font-weight: 700; }
QLabel[role="secondary"] { color: %3; }
QLabel[role="badge"] { background: %8; color: %9; border-radius: 6px; padding: 1px 6px; font-size: 8pt; font-weight: 600; }
QFrame[role="card"] { background: %4; border: 1px solid %5; border-radius: 10px; }
QFrame[role="banner"] { background: %4; border: 1px solid %5; border-radius: 10px; }
QFrame[role="banner"][attention="true"] { border: 1px solid %10; }
QLineEdit, QPlainTextEdit { background: %4; color: %2; border: 1px solid %5; border-radius: 7px; padding: 5px 8px; selection-background-color: %6; selection-color: %7; }
QLineEdit:focus, QPlainTextEdit:focus { border: 1px solid %6; }
QPushButton, QToolButton { background: %4; color: %2; border: 1px solid %5; border-radius: 7px; padding: 5px 12px; }
QPushButton:hover, QToolButton:hover { border-color: %6; }
QPushButton:disabled, QToolButton:disabled { color: %3; }
QPushButton:focus, QToolButton:focus { border: 1px solid %6; }
QPushButton[role="primary"] { background: %6; color: %7; border: 1px solid %6; font-weight: 600; }
QPushButton[role="primary"]:disabled { background: %5; border-color: %5; }
QToolButton:checked, QPushButton:checked { background: %11; border-color: %6; color: %2; }
QLabel#qt_msgbox_label { font-weight: 700; font-size: 12pt; }
QLabel#qt_msgbox_informativelabel { min-width: 380px; }
QLabel[role="keycap"] { background: %4; border: 1px solid %5; border-bottom-width: 2px; border-radius: 5px; padding: 1px 8px; font-weight: 600; }
QScrollBar:vertical { background: transparent; width: 10px; margin: 2px; }
QScrollBar::handle:vertical { background: %5; border-radius: 3px; min-height: 32px; }
QScrollBar::handle:vertical:hover { background: %3; }
QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical { height: 0; }
QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical { background: transparent; }
QListView { background: %1; border: none; outline: none; }
QProgressBar { background: %5; border: none; border-radius: 3px; max-height: 6px; }
QProgressBar::chunk { background: %6; border-radius: 3px; }
QSlider::groove:horizontal { height: 4px; background: %5; border-radius: 2px; }
QSlider::sub-page:horizontal { background: %6; border-radius: 2px; }
QSlider::handle:horizontal { background: %4; border: 1px solid %5; width: 16px; height: 16px; margin: -7px 0; border-radius: 8px; }
)")
        .arg(css(c.window), css(c.text), css(c.secondaryText), css(c.surface), css(c.border), css(c.accent),
            css(c.accentText), css(c.badge), css(c.badgeText))
        .arg(css(c.warning), css(c.raised));
}

void apply(QApplication &app)
{
    apply(app, prefersDark(QApplication::palette()));
}

void apply(QApplication &app, bool dark)
{
    g_colors = colorsFor(dark);
    if (QStyle *fusion = QStyleFactory::create(QStringLiteral("Fusion")))
        QApplication::setStyle(fusion);

    const Colors &c = g_colors;
    QPalette pal;
    pal.setColor(QPalette::Window, c.window);
    pal.setColor(QPalette::WindowText, c.text);
    pal.setColor(QPalette::Base, c.surface);
    pal.setColor(QPalette::AlternateBase, c.raised);
    pal.setColor(QPalette::Text, c.text);
    pal.setColor(QPalette::PlaceholderText, c.secondaryText);
    pal.setColor(QPalette::Button, c.surface);
    pal.setColor(QPalette::ButtonText, c.text);
    pal.setColor(QPalette::Highlight, c.accent);
    pal.setColor(QPalette::HighlightedText, c.accentText);
    pal.setColor(QPalette::ToolTipBase, c.surface);
    pal.setColor(QPalette::ToolTipText, c.text);
    pal.setColor(QPalette::Mid, c.border);
    pal.setColor(QPalette::Link, c.accent);
    pal.setColor(QPalette::Disabled, QPalette::Text, c.secondaryText);
    pal.setColor(QPalette::Disabled, QPalette::ButtonText, c.secondaryText);
    pal.setColor(QPalette::Disabled, QPalette::WindowText, c.secondaryText);
    QApplication::setPalette(pal);

    QFont font = QApplication::font();
    if (font.pointSizeF() < 10)
        font.setPointSizeF(10);
    QApplication::setFont(font);
    app.setStyleSheet(styleSheet(c));
}

QIcon symbol(Symbol which)
{
    return QIcon(new SymbolEngine(which));
}

ToggleSwitch::ToggleSwitch(QWidget *parent) : QAbstractButton(parent)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::StrongFocus);
}

QSize ToggleSwitch::sizeHint() const
{
    return QSize(40, 22);
}

void ToggleSwitch::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
    const qreal radius = track.height() / 2;
    const Colors &c = colors();
    QColor fill = isChecked() ? c.accent : c.border;
    if (!isEnabled())
        fill.setAlpha(120);
    p.setPen(hasFocus() ? QPen(c.accent, 1.5) : Qt::NoPen);
    p.setBrush(fill);
    p.drawRoundedRect(track, radius, radius);
    const qreal knob = track.height() - 4;
    const qreal x = isChecked() ? track.right() - knob - 2 : track.left() + 2;
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(Qt::white));
    p.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
}

} // namespace dictora::Style
