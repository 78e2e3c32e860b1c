#pragma once

#include "core/ProductPreferences.h"

#include <QImage>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <map>
#include <utility>

class QToolButton;

namespace dictora {

// A laptop screen with one clickable spot per overlay anchor and the
// indicator drawn where, how big and how opaque it is now.
class PlacementPreview : public QWidget {
    Q_OBJECT
public:
    explicit PlacementPreview(QWidget *parent = nullptr);

    void setAnchor(ScreenAnchor anchor);
    void setOverlaySize(OverlaySize size);
    void setOverlayOpacity(double opacity);
    QToolButton *spot(ScreenAnchor anchor) const { return m_spots.at(anchor); }

    QSize sizeHint() const override { return {420, 250}; }

Q_SIGNALS:
    void anchorChosen(dictora::ScreenAnchor anchor);

protected:
    void paintEvent(QPaintEvent *) override;
    void resizeEvent(QResizeEvent *) override;

private:
    QRectF screenRect() const;
    QRectF indicatorRect() const;
    void changeIndicator(const std::function<void()> &change);

    std::map<ScreenAnchor, QToolButton *> m_spots;
    QImage m_laptop; // the lid and base, drawn again only when the size or colours change
    std::pair<QColor, QColor> m_laptopColours;
    ScreenAnchor m_anchor = ScreenAnchor::bottomMiddle;
    OverlaySize m_size = OverlaySize::medium;
    double m_opacity = 0.9;
};

// A keyboard's top-left corner with the shortcut key under Escape, flashing
// while the practice waits for a press.
class KeyboardIllustration : public QWidget {
    Q_OBJECT
public:
    explicit KeyboardIllustration(QWidget *parent = nullptr);

    void setKeyLabel(const QString &label);
    void setFlashing(bool flashing);
    bool isFlashing() const { return m_timer.isActive(); }

    QSize sizeHint() const override { return {420, 150}; }

protected:
    void paintEvent(QPaintEvent *) override;

private:
    QString m_label;
    bool m_lit = true;
    QTimer m_timer;
};

// The desktop's top bar with the microphone at its right end.
class MenuBarIllustration : public QWidget {
    Q_OBJECT
public:
    explicit MenuBarIllustration(QWidget *parent = nullptr);
    QSize sizeHint() const override { return {420, 40}; }

protected:
    void paintEvent(QPaintEvent *) override;
};

} // namespace dictora
