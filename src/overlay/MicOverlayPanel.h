#pragma once

#include "core/ProductPreferences.h"

#include <QObject>

#include <memory>

class QLabel;
class QTimer;
class QWidget;

namespace dictora {

class DictoraState;
class OverlayWindowHints;
class MicIndicatorView;

// The floating microphone indicator: a frameless, always-on-top window on
// every desktop that never takes focus and lets clicks through. Its size,
// place, icon and opacity follow the preferences as soon as they change.
class MicOverlayPanel : public QObject {
    Q_OBJECT

public:
    // The state, the preferences and the hints must outlive the panel;
    // without hints the panel relies on Qt's window flags alone.
    MicOverlayPanel(DictoraState &state, ProductPreferences &preferences, OverlayWindowHints *hints = nullptr,
        QObject *parent = nullptr);
    ~MicOverlayPanel() override;

    // Places the panel for anchor on the screen under the pointer (the
    // primary screen when the pointer is on none); does nothing without screens.
    void reposition(ScreenAnchor anchor);
    // Brings the panel to the front without activating anything.
    void show();
    // A short message in the bubble (in place of the preview) for a few
    // seconds while recording: which microphone is heard, say.
    void showNotice(const QString &text);
    QString notice() const { return m_notice; }

    QWidget *panel() const { return m_panel.get(); }
    // The bubble beside the indicator with the text recognised so far.
    QLabel *previewBubble() const { return m_preview.get(); }
    MicIndicatorView *hostingView() const { return m_view; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void applyPreferences();
    void updateContent(OverlaySize size, bool showsMicrophoneIcon, double opacity);
    void updateAccessibleName();
    void updatePreview();

    std::unique_ptr<QWidget> m_panel;
    std::unique_ptr<QLabel> m_preview;
    MicIndicatorView *m_view = nullptr;
    DictoraState &m_state;
    ProductPreferences &m_preferences;
    OverlayWindowHints *m_hints = nullptr;
    bool m_desktopHintsApplied = false;
    QString m_notice;
    QTimer *m_noticeTimer = nullptr;
};

} // namespace dictora
