#pragma once

#include "core/ProductPreferences.h"
#include "core/StartAtLogin.h"

#include <QAbstractButton>
#include <QDialog>

class QButtonGroup;
class QLabel;
class QSlider;

namespace dictora {

namespace Style {
class ToggleSwitch;
}

// A small picture of a screen with the six places the indicator can sit.
// Click a spot or move with the arrow keys.
class ScreenAnchorPicker : public QWidget {
    Q_OBJECT
public:
    explicit ScreenAnchorPicker(QWidget *parent = nullptr);

    ScreenAnchor anchor() const { return m_anchor; }
    void setAnchor(ScreenAnchor anchor);
    QRectF spotRect(ScreenAnchor anchor) const;
    QSize sizeHint() const override { return QSize(280, 176); }

Q_SIGNALS:
    void anchorChosen(dictora::ScreenAnchor anchor);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    QRectF screenRect() const;
    void choose(ScreenAnchor anchor);

    ScreenAnchor m_anchor = ScreenAnchor::bottomMiddle;
};

// The indicator's position, size, opacity and icon, and whether Dictora starts
// at login. Every change is written to the preferences at once; the live
// indicator follows them by itself.
class AppearanceSheet : public QDialog {
    Q_OBJECT
public:
    explicit AppearanceSheet(ProductPreferences &preferences, QWidget *parent = nullptr);

    ScreenAnchorPicker *anchorPicker() const { return m_picker; }
    QSlider *opacitySlider() const { return m_opacity; }
    Style::ToggleSwitch *iconSwitch() const { return m_icon; }
    Style::ToggleSwitch *startAtLoginSwitch() const { return m_startAtLogin; }
    // Why the last change to "Start at login" failed; hidden when it worked.
    QLabel *startAtLoginFailure() const { return m_loginFailure; }
    QAbstractButton *sizeButton(OverlaySize size) const;

    static QString sizeTitle(OverlaySize size);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void sync();
    void switchStartAtLogin(bool on);

    ProductPreferences &m_preferences;
    ScreenAnchorPicker *m_picker;
    QButtonGroup *m_sizes;
    QSlider *m_opacity;
    QLabel *m_opacityValue;
    Style::ToggleSwitch *m_icon;
    StartAtLogin m_login;
    Style::ToggleSwitch *m_startAtLogin;
    QLabel *m_loginFailure;
};

} // namespace dictora
