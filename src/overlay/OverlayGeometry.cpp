#include "overlay/OverlayGeometry.h"

#include <algorithm>
#include <cmath>

namespace dictora::overlay {

namespace {

// Keeps a broken meter value (NaN, out of range) from drawing a bar outside its box.
double sanitisedLevel(double level)
{
    if (!(level > 0.0))
        return 0.0;
    return std::min(level, 1.0);
}

// Horizontal padding of the capsule around its content.
constexpr double kSidePadding = 12.0;
constexpr double kIconGap = 8.0;

} // namespace

double overlayScale(OverlaySize size)
{
    switch (size) {
    case OverlaySize::small: return 0.6;
    case OverlaySize::medium: return 0.75;
    case OverlaySize::large: return 0.95;
    }
    return 0.75;
}

QSizeF overlayPanelSize(OverlaySize size, bool showsMicrophoneIcon)
{
    const double scale = overlayScale(size);
    const double base = showsMicrophoneIcon ? kBaseWidthWithIcon : kBaseWidthWithoutIcon;
    return {base * scale, kBaseHeight * scale};
}

QSize overlayWindowSize(OverlaySize size, bool showsMicrophoneIcon)
{
    const QSizeF exact = overlayPanelSize(size, showsMicrophoneIcon);
    // 69.0 must stay 69 although 92 × 0.75 is computed with rounding error.
    const auto up = [](double v) { return int(std::ceil(v - 1e-9)); };
    return {up(exact.width()), up(exact.height())};
}

QPointF anchoredTopLeft(ScreenAnchor anchor, const QRectF &available, const QSizeF &panelSize)
{
    const double w = panelSize.width();
    const double h = panelSize.height();
    double x = 0;
    double y = 0;
    switch (anchor) {
    case ScreenAnchor::topLeft:
    case ScreenAnchor::bottomLeft:
        x = available.left() + kAnchorMargin;
        break;
    case ScreenAnchor::topMiddle:
    case ScreenAnchor::bottomMiddle:
        x = available.center().x() - w / 2.0;
        break;
    case ScreenAnchor::topRight:
    case ScreenAnchor::bottomRight:
        x = available.right() - w - kAnchorMargin;
        break;
    }
    switch (anchor) {
    case ScreenAnchor::topLeft:
    case ScreenAnchor::topMiddle:
    case ScreenAnchor::topRight:
        y = available.top() + kAnchorMargin;
        break;
    case ScreenAnchor::bottomLeft:
    case ScreenAnchor::bottomMiddle:
    case ScreenAnchor::bottomRight:
        y = available.bottom() - h - kAnchorMargin;
        break;
    }
    return {x, y};
}

int screenIndexAt(const QList<QRect> &screenGeometries, const QPoint &pointer)
{
    for (int i = 0; i < screenGeometries.size(); ++i)
        if (screenGeometries.at(i).contains(pointer))
            return i;
    return -1;
}

double levelForBar(const AudioMeterLevels &levels, int index)
{
    switch (index) {
    case 0: return levels.first;
    case 1: return levels.second;
    case 2: return levels.third;
    case 3: return levels.fourth;
    default: return 0.0;
    }
}

double indicatorBarHeight(const DictoraPhase &phase, const AudioMeterLevels &levels, int index)
{
    if (index < 0 || index >= int(kMaximumBarHeights.size()) || !phase.is(DictoraPhase::Kind::recording))
        return kIdleBarHeight;
    const double level = std::max(sanitisedLevel(levelForBar(levels, index)), kMinimumRecordingLevel);
    return kIdleBarHeight + level * (kMaximumBarHeights[size_t(index)] - kIdleBarHeight);
}

double microphoneCircleOpacity(const DictoraPhase &phase, const AudioMeterLevels &levels)
{
    if (!phase.is(DictoraPhase::Kind::recording))
        return 0.2;
    double loudest = 0.0;
    for (int i = 0; i < 4; ++i)
        loudest = std::max(loudest, sanitisedLevel(levelForBar(levels, i)));
    return 0.18 + 0.2 * loudest;
}

IndicatorLayout indicatorLayout(bool showsMicrophoneIcon)
{
    IndicatorLayout layout;
    const double width = showsMicrophoneIcon ? kBaseWidthWithIcon : kBaseWidthWithoutIcon;
    layout.bounds = QRectF(0, 0, width, kBaseHeight);
    double x = kSidePadding;
    if (showsMicrophoneIcon) {
        layout.circle = QRectF(x, (kBaseHeight - kCircleDiameter) / 2.0, kCircleDiameter, kCircleDiameter);
        x += kCircleDiameter + kIconGap;
    }
    layout.barBox = QRectF(QPointF(x, (kBaseHeight - kBarBoxSize.height()) / 2.0), kBarBoxSize);
    return layout;
}

QRectF barRect(const QRectF &barBox, int index, double height)
{
    const int count = int(kMaximumBarHeights.size());
    const double barWidth = (barBox.width() - kBarSpacing * (count - 1)) / count;
    const double x = barBox.left() + index * (barWidth + kBarSpacing);
    const double y = barBox.center().y() - height / 2.0;
    return {x, y, barWidth, height};
}

} // namespace dictora::overlay
