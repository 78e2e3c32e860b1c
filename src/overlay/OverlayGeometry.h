#pragma once

#include "core/AudioMeterLevels.h"
#include "core/DictoraPhase.h"
#include "core/ProductPreferences.h"

#include <QList>
#include <QPoint>
#include <QPointF>
#include <QRect>
#include <QRectF>
#include <QSize>
#include <QSizeF>

#include <array>

// Pure geometry of the microphone indicator, in device-independent pixels.
// Kept free of widgets so every rule can be checked without a screen.
namespace dictora::overlay {

inline constexpr double kBaseHeight = 52.0;
inline constexpr double kBaseWidthWithIcon = 92.0;
inline constexpr double kBaseWidthWithoutIcon = 50.0;
inline constexpr double kAnchorMargin = 8.0;
inline constexpr double kIdleBarHeight = 5.0;
inline constexpr double kMinimumRecordingLevel = 0.08;
inline constexpr double kBarSpacing = 3.0;
inline constexpr QSizeF kBarBoxSize{26.0, 24.0};
inline constexpr double kCircleDiameter = 34.0;
// Bars 1 to 4; deliberately not monotonic so the row looks like a voice.
inline constexpr std::array<double, 4> kMaximumBarHeights{13.0, 21.0, 17.0, 24.0};

double overlayScale(OverlaySize size);
// The exact panel size: 52 × scale high, (92 or 50) × scale wide.
QSizeF overlayPanelSize(OverlaySize size, bool showsMicrophoneIcon);
// The whole-pixel window size that holds overlayPanelSize (rounded up).
QSize overlayWindowSize(OverlaySize size, bool showsMicrophoneIcon);

// Top-left corner of a panel of panelSize anchored inside available
// (top-left origin), 8 pixels from the chosen edges, middles centred exactly.
QPointF anchoredTopLeft(ScreenAnchor anchor, const QRectF &available, const QSizeF &panelSize);

// Index of the first screen whose geometry holds the pointer, or -1.
int screenIndexAt(const QList<QRect> &screenGeometries, const QPoint &pointer);

double levelForBar(const AudioMeterLevels &levels, int index);
// Height of bar index (0…3): 5 unless recording, else 5 + level × (max − 5)
// with the level raised to at least 0.08.
double indicatorBarHeight(const DictoraPhase &phase, const AudioMeterLevels &levels, int index);
// Fill opacity of the microphone circle.
double microphoneCircleOpacity(const DictoraPhase &phase, const AudioMeterLevels &levels);

// Layout of the unscaled indicator (base width × 52).
struct IndicatorLayout {
    QRectF bounds;
    QRectF circle; // empty without the icon
    QRectF barBox;
};
IndicatorLayout indicatorLayout(bool showsMicrophoneIcon);
// Bar index standing in barBox with the given height, centred vertically.
QRectF barRect(const QRectF &barBox, int index, double height);

} // namespace dictora::overlay
