#include "onboarding/ui/OnboardingIllustrations.h"

#include <QPainter>
#include <QPainterPath>
#include <QToolButton>

#include <array>
#include <functional>

namespace dictora {

namespace {

QColor accent()
{
    return QColor(0xFF, 0x5A, 0x36);
}

void drawMicrophone(QPainter &p, const QRectF &box, const QColor &colour)
{
    p.save();
    p.setPen(QPen(colour, std::max(1.5, box.width() / 10), Qt::SolidLine, Qt::RoundCap));
    p.setBrush(Qt::NoBrush);
    const double w = box.width();
    const QRectF capsule(box.center().x() - w * 0.18, box.top(), w * 0.36, box.height() * 0.6);
    p.setBrush(colour);
    p.drawRoundedRect(capsule, w * 0.18, w * 0.18);
    p.setBrush(Qt::NoBrush);
    const QRectF cup(box.center().x() - w * 0.32, box.top() + box.height() * 0.2, w * 0.64, box.height() * 0.55);
    p.drawArc(cup, 180 * 16, 180 * 16);
    p.drawLine(QPointF(box.center().x(), cup.bottom()), QPointF(box.center().x(), box.bottom()));
    p.restore();
}

// Antialiased strokes and fills this large are split over Qt's worker
// threads, and the GUI thread waits for them: a busy machine turns that into
// a visible stall. What does not change from frame to frame is drawn once
// into an image at the screen's resolution and copied from then on.
QImage cachedImage(QSize size, qreal dpr, const std::function<void(QPainter &)> &draw)
{
    QImage image(size * dpr, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(dpr);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    draw(p);
    return image;
}

// A placement spot: a dashed outline, the accent colour under the pointer
// or the keyboard focus, and a solid accent outline when chosen.
class PlacementSpot : public QToolButton {
public:
    using QToolButton::QToolButton;

protected:
    void paintEvent(QPaintEvent *) override
    {
        enum Look { idle, pointed, chosen };
        const Look look = isChecked() ? chosen : (underMouse() || hasFocus()) ? pointed : idle;
        const qreal dpr = devicePixelRatioF();
        // All six spots are the same size: one image per look serves them all.
        static std::array<QImage, 3> looks;
        QImage &image = looks[look];
        if (image.size() != size() * dpr || image.devicePixelRatio() != dpr) {
            const QColor colour = look == idle ? QColor(128, 128, 128, 150) : accent();
            const Qt::PenStyle style = look == chosen ? Qt::SolidLine : Qt::DashLine;
            image = cachedImage(size(), dpr, [&](QPainter &p) {
                p.setPen(QPen(colour, 2, style));
                p.setBrush(Qt::NoBrush);
                p.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 8, 8);
            });
        }
        QPainter(this).drawImage(QPoint(0, 0), image);
    }
};

} // namespace

PlacementPreview::PlacementPreview(QWidget *parent) : QWidget(parent)
{
    setAccessibleName(QStringLiteral("Laptop preview with six placement choices"));
    setMinimumSize(360, 220);
    for (ScreenAnchor anchor : allScreenAnchors()) {
        auto *button = new PlacementSpot(this);
        button->setObjectName(QStringLiteral("spot-") + rawValue(anchor));
        button->setAccessibleName(rawValue(anchor));
        button->setCheckable(true);
        button->setAutoRaise(true);
        button->setCursor(Qt::PointingHandCursor);
        connect(button, &QToolButton::clicked, this, [this, anchor] {
            setAnchor(anchor);
            Q_EMIT anchorChosen(anchor);
        });
        m_spots.emplace(anchor, button);
    }
    setAnchor(m_anchor);
}

void PlacementPreview::setAnchor(ScreenAnchor anchor)
{
    for (auto &[a, button] : m_spots)
        button->setChecked(a == anchor);
    changeIndicator([&] { m_anchor = anchor; });
}

void PlacementPreview::setOverlaySize(OverlaySize size)
{
    changeIndicator([&] { m_size = size; });
}

void PlacementPreview::setOverlayOpacity(double opacity)
{
    changeIndicator([&] { m_opacity = opacity; });
}

void PlacementPreview::changeIndicator(const std::function<void()> &change)
{
    // Only where the indicator was and is now: every repainted pixel is
    // sent to the display server again.
    const QRectF before = indicatorRect();
    change();
    update(before.united(indicatorRect()).toAlignedRect().adjusted(-2, -2, 2, 2));
}

QRectF PlacementPreview::screenRect() const
{
    const double w = width() * 0.86;
    const double h = std::min(height() * 0.82, w * 0.62);
    return QRectF((width() - w) / 2, 6, w, h);
}

static QRectF spotRect(const QRectF &screen, ScreenAnchor anchor, QSizeF size)
{
    const double margin = 12;
    double x = screen.left() + margin;
    double y = screen.top() + margin;
    switch (anchor) {
    case ScreenAnchor::topMiddle:
    case ScreenAnchor::bottomMiddle:
        x = screen.center().x() - size.width() / 2;
        break;
    case ScreenAnchor::topRight:
    case ScreenAnchor::bottomRight:
        x = screen.right() - margin - size.width();
        break;
    default:
        break;
    }
    if (anchor == ScreenAnchor::bottomLeft || anchor == ScreenAnchor::bottomMiddle || anchor == ScreenAnchor::bottomRight)
        y = screen.bottom() - margin - size.height();
    return QRectF(QPointF(x, y), size);
}

QRectF PlacementPreview::indicatorRect() const
{
    const double scale = m_size == OverlaySize::small ? 0.75 : m_size == OverlaySize::large ? 1.3 : 1.0;
    return spotRect(screenRect(), m_anchor, QSizeF(64 * scale, 26 * scale));
}

void PlacementPreview::resizeEvent(QResizeEvent *)
{
    for (auto &[anchor, button] : m_spots)
        button->setGeometry(spotRect(screenRect(), anchor, QSizeF(92, 44)).toAlignedRect());
}

void PlacementPreview::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    const QRectF screen = screenRect();
    const QColor frame = palette().color(QPalette::WindowText);
    const QColor glass = palette().color(QPalette::Base);
    const qreal dpr = devicePixelRatioF();
    if (m_laptop.size() != size() * dpr || m_laptop.devicePixelRatio() != dpr || m_laptopColours != std::pair{frame, glass}) {
        m_laptopColours = {frame, glass};
        m_laptop = cachedImage(size(), dpr, [&](QPainter &lp) {
            // Lid and base.
            lp.setPen(QPen(frame, 3));
            lp.setBrush(glass);
            lp.drawRoundedRect(screen.adjusted(-8, -6, 8, 8), 12, 12);
            QPainterPath base;
            const double baseTop = screen.bottom() + 10;
            base.moveTo(screen.left() - 30, baseTop);
            base.lineTo(screen.right() + 30, baseTop);
            base.lineTo(screen.right() + 18, baseTop + 12);
            base.lineTo(screen.left() - 18, baseTop + 12);
            base.closeSubpath();
            lp.setBrush(frame);
            lp.drawPath(base);
        });
    }
    p.drawImage(QPoint(0, 0), m_laptop);
    p.setRenderHint(QPainter::Antialiasing);

    // The indicator as it will look.
    const QRectF pill = indicatorRect();
    QColor fill(24, 24, 24);
    fill.setAlphaF(m_opacity);
    p.setPen(Qt::NoPen);
    p.setBrush(fill);
    p.drawRoundedRect(pill, pill.height() / 2, pill.height() / 2);
    const double glyph = pill.height() * 0.6;
    drawMicrophone(p, QRectF(pill.left() + pill.height() * 0.35, pill.center().y() - glyph / 2, glyph * 0.8, glyph),
                   QColor(255, 255, 255, int(255 * m_opacity)));
    p.setBrush(QColor(255, 255, 255, int(200 * m_opacity)));
    for (int i = 0; i < 4; ++i) {
        const double barHeight = pill.height() * (0.25 + 0.12 * ((i * 5) % 4));
        p.drawRoundedRect(QRectF(pill.left() + pill.height() + i * pill.height() * 0.28,
                                 pill.center().y() - barHeight / 2, pill.height() * 0.14, barHeight),
                          2, 2);
    }
}

KeyboardIllustration::KeyboardIllustration(QWidget *parent) : QWidget(parent)
{
    setAccessibleName(QStringLiteral("Keyboard with the key below Escape highlighted"));
    setMinimumSize(360, 130);
    m_timer.setInterval(600);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_lit = !m_lit;
        update();
    });
}

void KeyboardIllustration::setKeyLabel(const QString &label)
{
    m_label = label;
    update();
}

void KeyboardIllustration::setFlashing(bool flashing)
{
    if (flashing == m_timer.isActive())
        return;
    m_lit = true;
    if (flashing)
        m_timer.start();
    else
        m_timer.stop();
    update();
}

void KeyboardIllustration::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const double key = std::min(56.0, (width() - 20) / 7.5);
    const double gap = key * 0.14;
    const QColor text = palette().color(QPalette::WindowText);
    const QColor cap = palette().color(QPalette::Button);
    const double left = (width() - 7 * (key + gap)) / 2;
    const double top = std::max(10.0, (height() - (key * 1.75 + gap)) / 2);
    const QStringList topRow{QStringLiteral("esc"), QStringLiteral("F1"), QStringLiteral("F2"), QStringLiteral("F3"),
                          QStringLiteral("F4"), QStringLiteral("F5"), QStringLiteral("F6")};
    const QStringList row{QString(), QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("3"),
                          QStringLiteral("4"), QStringLiteral("5"), QStringLiteral("6")};
    QFont f = font();
    f.setPixelSize(int(key * 0.28));
    p.setFont(f);
    for (int r = 0; r < 2; ++r) {
        for (int i = 0; i < 7; ++i) {
            const QRectF rect(left + i * (key + gap), top + r * (key * 0.75 + gap), key, r ? key : key * 0.75);
            const bool target = r == 1 && i == 0;
            QColor fill = cap;
            if (target && m_lit)
                fill = accent();
            p.setPen(QPen(text, 1.5));
            p.setBrush(fill);
            p.drawRoundedRect(rect, 6, 6);
            QString label = r ? row.at(i) : topRow.at(i);
            if (target) {
                label = m_label;
                QFont big = f;
                big.setBold(true);
                big.setPixelSize(int(key * 0.42));
                p.setFont(big);
                p.setPen(m_lit ? Qt::white : text);
                p.drawText(rect, Qt::AlignCenter, label);
                p.setFont(f);
            } else {
                p.setPen(text);
                p.drawText(rect, Qt::AlignCenter, label);
            }
        }
    }
}

MenuBarIllustration::MenuBarIllustration(QWidget *parent) : QWidget(parent)
{
    setAccessibleName(QStringLiteral("Desktop top bar with the Dictora microphone"));
    setMinimumHeight(34);
}

void MenuBarIllustration::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF bar(0, 4, width(), height() - 8);
    p.setPen(Qt::NoPen);
    p.setBrush(palette().color(QPalette::AlternateBase).darker(110));
    p.drawRoundedRect(bar, 6, 6);
    const double h = bar.height() * 0.7;
    const QRectF mic(bar.right() - 3 * h, bar.center().y() - h / 2, h * 0.8, h);
    p.setBrush(QColor(255, 90, 54, 60));
    p.drawEllipse(mic.center(), h * 0.8, h * 0.8);
    drawMicrophone(p, mic, accent());
    p.setPen(palette().color(QPalette::WindowText));
    p.drawText(bar.adjusted(12, 0, 0, 0), Qt::AlignVCenter | Qt::AlignLeft, QStringLiteral("Activities"));
}

} // namespace dictora
