#include "overlay/MicrophoneGlyph.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>

namespace dictora::overlay {

void paintMicrophoneGlyph(QPainter &painter, const QRectF &rect, const QColor &color)
{
    const double s = std::min(rect.width(), rect.height());
    if (s <= 0)
        return;
    const QPointF c = rect.center();
    const double top = c.y() - s / 2.0;

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, true);

    // Head: a rounded capsule in the upper part.
    const double headW = s * 0.36;
    const double headH = s * 0.54;
    const QRectF head(c.x() - headW / 2.0, top + s * 0.04, headW, headH);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawRoundedRect(head, headW / 2.0, headW / 2.0);

    // Holder: a U around the lower half of the head, then the stand and its foot.
    QPen pen(color, std::max(1.0, s * 0.075), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    const double holderW = s * 0.62;
    const double holderTop = top + s * 0.34;
    const double holderBottom = top + s * 0.76;
    const double depth = holderBottom - holderTop;
    QPainterPath holder;
    holder.moveTo(c.x() - holderW / 2.0, holderTop);
    holder.arcTo(QRectF(c.x() - holderW / 2.0, holderTop - depth, holderW, 2.0 * depth), 180.0, 180.0);
    painter.drawPath(holder);
    const double footY = top + s * 0.94;
    painter.drawLine(QPointF(c.x(), holderBottom), QPointF(c.x(), footY));
    painter.drawLine(QPointF(c.x() - s * 0.18, footY), QPointF(c.x() + s * 0.18, footY));

    painter.restore();
}

bool isDarkPanel(const QPalette &palette)
{
    return palette.color(QPalette::Window).lightnessF() < 0.5;
}

QColor trayGlyphColor(bool darkPanel)
{
    return darkPanel ? QColor(0xf2, 0xf2, 0xf2) : QColor(0x22, 0x22, 0x22);
}

QPixmap trayIconPixmap(int pixelSize, bool darkPanel)
{
    QPixmap pixmap(pixelSize, pixelSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    // A small inset keeps the round caps off the tray's clip edge.
    const double inset = pixelSize * 0.06;
    paintMicrophoneGlyph(painter, QRectF(0, 0, pixelSize, pixelSize).adjusted(inset, inset, -inset, -inset),
        trayGlyphColor(darkPanel));
    painter.end();
    return pixmap;
}

QIcon trayIcon(bool darkPanel)
{
    QIcon icon;
    for (int size : {16, 19, 22, 24, 32, 38, 48, 64})
        icon.addPixmap(trayIconPixmap(size, darkPanel));
    return icon;
}

} // namespace dictora::overlay
