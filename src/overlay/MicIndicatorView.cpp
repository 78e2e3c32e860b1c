#include "overlay/MicIndicatorView.h"

#include "core/DictoraState.h"
#include "overlay/MicrophoneGlyph.h"
#include "overlay/OverlayGeometry.h"

#include <QPainter>
#include <QPainterPath>

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

void MicIndicatorView::paintEvent(QPaintEvent *)
{
    const DictoraPhase phase = m_state.phase();
    const AudioMeterLevels levels = m_state.meterLevels();
    const overlay::IndicatorLayout layout = overlay::indicatorLayout(m_showsIcon);
    const double scale = overlay::overlayScale(m_size);

    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillRect(rect(), Qt::transparent);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.setOpacity(m_opacity);

    // Scale the base drawing around the centre of the widget.
    const QPointF centre = QRectF(rect()).center();
    painter.translate(centre);
    painter.scale(scale, scale);
    painter.translate(-layout.bounds.center());

    // Capsule with a hairline outline, inset half a line so it is not clipped.
    const double outline = 1.0 / scale;
    const QRectF capsule = layout.bounds.adjusted(outline / 2, outline / 2, -outline / 2, -outline / 2);
    painter.setPen(QPen(kCapsuleOutline, outline));
    painter.setBrush(kCapsuleFill);
    painter.drawRoundedRect(capsule, capsule.height() / 2.0, capsule.height() / 2.0);

    if (m_showsIcon) {
        const bool recording = phase.is(DictoraPhase::Kind::recording);
        QColor fill = recording ? kRecordingCircle : kIdleCircle;
        fill.setAlphaF(float(overlay::microphoneCircleOpacity(phase, levels)));
        painter.setPen(Qt::NoPen);
        painter.setBrush(fill);
        painter.drawEllipse(layout.circle);
        const double glyph = layout.circle.width() * 0.55;
        overlay::paintMicrophoneGlyph(painter,
            QRectF(layout.circle.center() - QPointF(glyph / 2, glyph / 2), QSizeF(glyph, glyph)), kGlyphColor);
    }

    painter.setPen(Qt::NoPen);
    painter.setBrush(kBarColor);
    for (int i = 0; i < int(overlay::kMaximumBarHeights.size()); ++i) {
        const QRectF bar = overlay::barRect(layout.barBox, i, overlay::indicatorBarHeight(phase, levels, i));
        const double radius = bar.width() / 2.0;
        painter.drawRoundedRect(bar, radius, radius);
    }
}

} // namespace dictora
