#pragma once

#include <QColor>
#include <QIcon>
#include <QPalette>
#include <QPixmap>
#include <QRectF>

class QPainter;

namespace dictora::overlay {

// Draws a microphone (head, holder, stand) filling the square centred in rect.
void paintMicrophoneGlyph(QPainter &painter, const QRectF &rect, const QColor &color);

// Panels are "dark" when their window colour is darker than mid-grey.
bool isDarkPanel(const QPalette &palette);
// Glyph colour that reads on a light or a dark panel.
QColor trayGlyphColor(bool darkPanel);
// The tray microphone at one pixel size, transparent around the glyph.
QPixmap trayIconPixmap(int pixelSize, bool darkPanel);
// The tray microphone at the usual tray sizes.
QIcon trayIcon(bool darkPanel);

} // namespace dictora::overlay
