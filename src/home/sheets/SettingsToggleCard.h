#pragma once

#include <QAbstractButton>
#include <QFrame>

class QLabel;

namespace dictora {

// An on/off switch: a track with a knob that sits right when on.
class ToggleSwitch : public QAbstractButton {
    Q_OBJECT
public:
    explicit ToggleSwitch(QWidget *parent = nullptr);
    QSize sizeHint() const override { return {44, 24}; }

protected:
    void paintEvent(QPaintEvent *) override;
};

// A title beside a switch, on a card.
class SettingsToggleCard : public QFrame {
    Q_OBJECT
public:
    explicit SettingsToggleCard(const QString &title, QWidget *parent = nullptr);

    QString title() const;
    bool isOn() const;
    void setOn(bool on);
    ToggleSwitch *toggle() const { return m_switch; }

Q_SIGNALS:
    void toggled(bool on);

private:
    QLabel *m_title;
    ToggleSwitch *m_switch;
};

} // namespace dictora
