#include "overlay/MicIndicatorView.h"

#include "core/DictoraState.h"
#include "overlay/MicrophoneGlyph.h"
#include "overlay/OverlayGeometry.h"

#include <QImage>
#include <QPainter>

namespace dictora {

namespace {

const QColor kCapsuleFill(18, 18, 22, 235);
const QColor kCapsuleOutline(255, 255, 255, 56);
const QColor kBarColor(250, 250, 252);
const QColor kIdleCircle(255, 255, 255);
const QColor kRecordingCircle(255, 69, 58);
const QColor kGlyphColor(250, 250, 252);

} // namespace

MicIndicatorView::MicIndicatorView(DictoraState &state, QWidget *parent)
    : QWidget(parent), m_state(state)
{
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    resize(overlay::overlayWindowSize(m_size, m_showsIcon));

    // Only these two change while recording; a repaint is all they need.
    connect(&m_state, &DictoraState::meterLevelsChanged, this, [this] { update(); });
    connect(&m_state, &DictoraState::phaseChanged, this, [this] {
        updateAccessibleName();
        update();
    });
    updateAccessibleName();
}

void MicIndicatorView::configure(OverlaySize size, bool showsMicrophoneIcon, double opacity)
{
    m_size = size;
    m_showsIcon = showsMicrophoneIcon;
    m_opacity = ProductPreferences::clampOpacity(opacity);
    resize(overlay::overlayWindowSize(m_size, m_showsIcon));
    update();
}

QSize MicIndicatorView::sizeHint() const
{
    return overlay::overlayWindowSize(m_size, m_showsIcon);
}

void MicIndicatorView::updateAccessibleName()
{
    setAccessibleName(m_state.phase().label());
}

// The drawing's own coordinates (layout units) mapped onto the widget.
static void applyLayoutTransform(QPainter &painter, const QRectF &widget, const QRectF &bounds, double scale)
{
    painter.translate(widget.center());
    painter.scale(scale, scale);
    painter.translate(-bounds.center());
}

// What does not change between level updates is drawn once into images at
// device resolution and then only copied. Qt hands any large antialiased
// fill to its worker threads and waits for them, and on a busy machine that
// wait stalled the GUI thread for tens of milliseconds per frame.
const MicIndicatorView::Layers &MicIndicatorView::layers()
{
    const qreal dpr = devicePixelRatioF();
    if (m_layers.size == size() && m_layers.dpr == dpr && m_layers.showsIcon == m_showsIcon)
        return m_layers;

    const overlay::IndicatorLayout layout = overlay::indicatorLayout(m_showsIcon);
    const double scale = overlay::overlayScale(m_size);
    const auto layer = [&](const auto &draw) {
        QImage image(size() * dpr, QImage::Format_ARGB32_Premultiplied);
        image.setDevicePixelRatio(dpr);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing, true);
        applyLayoutTransform(painter, QRectF(rect()), layout.bounds, scale);
        draw(painter);
        return image;
    };

    m_layers = Layers();
    m_layers.size = size();
    m_layers.dpr = dpr;
    m_layers.showsIcon = m_showsIcon;
    // Capsule with a hairline outline, inset half a line so it is not clipped.
    m_layers.capsule = layer([&](QPainter &painter) {
        const double outline = 1.0 / scale;
        const QRectF capsule = layout.bounds.adjusted(outline / 2, outline / 2, -outline / 2, -outline / 2);
        painter.setPen(QPen(kCapsuleOutline, outline));
        painter.setBrush(kCapsuleFill);
        painter.drawRoundedRect(capsule, capsule.height() / 2.0, capsule.height() / 2.0);
    });
    if (m_showsIcon) {
        const auto circle = [&](const QColor &fill) {
            return layer([&](QPainter &painter) {
                painter.setPen(Qt::NoPen);
                painter.setBrush(fill);
                painter.drawEllipse(layout.circle);
            });
        };
        m_layers.idleCircle = circle(kIdleCircle);
        m_layers.recordingCircle = circle(kRecordingCircle);
        m_layers.glyph = layer([&](QPainter &painter) {
            const double glyph = layout.circle.width() * 0.55;
            overlay::paintMicrophoneGlyph(painter,
                QRectF(layout.circle.center() - QPointF(glyph / 2, glyph / 2), QSizeF(glyph, glyph)), kGlyphColor);
        });
    }
    return m_layers;
}

void MicIndicatorView::paintEvent(QPaintEvent *)
{
    const DictoraPhase phase = m_state.phase();
    const AudioMeterLevels levels = m_state.meterLevels();
    const Layers &cached = layers();
    const QRectF area(rect());

    QPainter painter(this);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillRect(rect(), Qt::transparent);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.setOpacity(m_opacity);
    painter.drawImage(area, cached.capsule);

    if (m_showsIcon) {
        const bool recording = phase.is(DictoraPhase::Kind::recording);
        painter.setOpacity(m_opacity * overlay::microphoneCircleOpacity(phase, levels));
        painter.drawImage(area, recording ? cached.recordingCircle : cached.idleCircle);
        painter.setOpacity(m_opacity);
        painter.drawImage(area, cached.glyph);
    }

    // The bars are small enough to draw directly.
    const overlay::IndicatorLayout layout = overlay::indicatorLayout(m_showsIcon);
    painter.setRenderHint(QPainter::Antialiasing, true);
    applyLayoutTransform(painter, area, layout.bounds, overlay::overlayScale(m_size));
    painter.setPen(Qt::NoPen);
    painter.setBrush(kBarColor);
    for (int i = 0; i < int(overlay::kMaximumBarHeights.size()); ++i) {
        const QRectF bar = overlay::barRect(layout.barBox, i, overlay::indicatorBarHeight(phase, levels, i));
        const double radius = bar.width() / 2.0;
        painter.drawRoundedRect(bar, radius, radius);
    }
}

} // namespace dictora
