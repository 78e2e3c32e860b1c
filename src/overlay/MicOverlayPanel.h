#pragma once

#include "core/ProductPreferences.h"

#include <QObject>

#include <memory>

class QWidget;

namespace dictora {

namespace overlay {
class X11FrameClickThrough;
}

class DictoraState;
class MicIndicatorView;

// The floating microphone indicator: a frameless, always-on-top window on
// every desktop that never takes focus and lets clicks through. Its size,
// place, icon and opacity follow the preferences as soon as they change.
class MicOverlayPanel : public QObject {
    Q_OBJECT

public:
    // The state and the preferences must outlive the panel.
    MicOverlayPanel(DictoraState &state, ProductPreferences &preferences, QObject *parent = nullptr);
    ~MicOverlayPanel() override;

    // Places the panel for anchor on the screen under the pointer (the
    // primary screen when the pointer is on none); does nothing without screens.
    void reposition(ScreenAnchor anchor);
    // Brings the panel to the front without activating anything.
    void show();

    QWidget *panel() const { return m_panel.get(); }
    MicIndicatorView *hostingView() const { return m_view; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void applyPreferences();
    void updateContent(OverlaySize size, bool showsMicrophoneIcon, double opacity);
    void updateAccessibleName();

    std::unique_ptr<QWidget> m_panel;
    MicIndicatorView *m_view = nullptr;
    DictoraState &m_state;
    ProductPreferences &m_preferences;
    bool m_desktopHintsApplied = false;
    std::unique_ptr<overlay::X11FrameClickThrough> m_frameClickThrough;
};

} // namespace dictora
