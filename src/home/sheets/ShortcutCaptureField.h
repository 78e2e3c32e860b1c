#pragma once

#include "shortcut/GlobalShortcut.h"

#include <QFrame>

#include <optional>

class QKeyEvent;
class QLabel;

namespace dictora {

// Takes keyboard focus and turns every key press into a shortcut candidate;
// each press is consumed, so Escape or Return are candidates like any key.
class ShortcutCaptureField : public QFrame {
    Q_OBJECT
public:
    explicit ShortcutCaptureField(QWidget *parent = nullptr);

    // Shows the captured shortcut, or the placeholder when there is none.
    void setShortcut(const std::optional<GlobalShortcut> &shortcut);

    // The candidate a key press stands for: the physical key (X keycode from
    // the event), the modifiers held, and the label the current layout
    // prints. nullopt for a lone modifier or a key outside the key table.
    static std::optional<GlobalShortcut> shortcutFromKeyEvent(const QKeyEvent &event);
    static bool isModifierKey(int qtKey);

Q_SIGNALS:
    void captured(const dictora::GlobalShortcut &shortcut);
    // A key that cannot be stored as a shortcut.
    void rejected();

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;

private:
    QLabel *m_text;
};

} // namespace dictora
