#pragma once

#include <QWidget>

class QFrame;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace dictora {

// The common frame of every onboarding screen: an eyebrow line, a headline
// in the display face, a sentence-case detail line, then the stage's content.
class OnboardingStageShell : public QWidget {
    Q_OBJECT
public:
    explicit OnboardingStageShell(QWidget *parent = nullptr);

    void setEyebrow(const QString &text);
    void setHeadline(const QString &text);
    void setDetail(const QString &text);
    QString eyebrow() const;
    QString headline() const;
    QString detail() const;

    QVBoxLayout *content() const { return m_content; }

private:
    QLabel *m_eyebrow;
    QLabel *m_headline;
    QLabel *m_detail;
    QVBoxLayout *m_content;
};

// A big capitals button in the display face.
QPushButton *makeDisplayButton(const QString &text, const QString &objectName, QWidget *parent = nullptr);
// A wrapping plain-text label; screen texts may hold user words, never markup.
QLabel *makePlainLabel(const QString &text, const QString &objectName, QWidget *parent);
// A raised panel on the base colour, for example content.
QFrame *makeCard(QWidget *parent);

} // namespace dictora
