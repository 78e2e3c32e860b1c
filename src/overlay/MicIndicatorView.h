#pragma once

#include "core/ProductPreferences.h"

#include <QImage>
#include <QWidget>

namespace dictora {

class DictoraState;

// The indicator's content: four level bars, optionally beside a microphone
// circle, on a capsule. It reads the phase and levels straight from the state
// on every paint, so level changes cost one repaint and never a rebuild.
class MicIndicatorView : public QWidget {
    Q_OBJECT

public:
    MicIndicatorView(DictoraState &state, QWidget *parent = nullptr);

    // Applies the look chosen in the preferences and resizes to it.
    void configure(OverlaySize size, bool showsMicrophoneIcon, double opacity);

    bool showsMicrophoneIcon() const { return m_showsIcon; }
    double indicatorOpacity() const { return m_opacity; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    // The parts that stay still while the levels move, drawn once per size.
    struct Layers {
        QSize size;
        qreal dpr = 0;
        bool showsIcon = false;
        QImage capsule;
        QImage idleCircle;
        QImage recordingCircle;
        QImage glyph;
    };
    const Layers &layers();
    void updateAccessibleName();

    DictoraState &m_state;
    OverlaySize m_size = OverlaySize::medium;
    bool m_showsIcon = true;
    double m_opacity = 0.9;
    Layers m_layers;
};

} // namespace dictora
