#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QIcon>

class QApplication;
class QPalette;

namespace dictora::Style {

// The colours every window draws with, picked for the desktop's light or dark theme.
struct Colors {
    bool dark = false;
    QColor window;      // the solid grey behind everything
    QColor surface;     // cards, rows, sheets
    QColor raised;      // hovered/selected rows
    QColor text;
    QColor secondaryText;
    QColor border;
    QColor accent;
    QColor accentText;  // text on the accent colour
    QColor warning;
    QColor badge;
    QColor badgeText;
};

// Dark when the desktop palette's window colour is dark.
bool prefersDark(const QPalette &desktop);
Colors colorsFor(bool dark);
// The colours of the theme last applied (light before apply() runs).
const Colors &colors();

// Installs the one application look: Fusion, palette, fonts and style sheet.
// Call once, after the QApplication exists and before windows are built.
void apply(QApplication &app);
// Same with the theme chosen explicitly (screenshots of both themes).
void apply(QApplication &app, bool dark);
QString styleSheet(const Colors &colors);

// Vector symbols, painted at whatever size and device pixel ratio they are
// asked for, in the palette's text colour, so they stay sharp on HiDPI.
enum class Symbol { magnifyingGlass, clearField, filter, copy, checkmark, archive, gear, keyboard, snippets };
QIcon symbol(Symbol which);

// An on/off switch drawn with the accent colour; checkable.
class ToggleSwitch : public QAbstractButton {
    Q_OBJECT
public:
    explicit ToggleSwitch(QWidget *parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
};

} // namespace dictora::Style
