#pragma once

#include "core/ProductPreferences.h"

#include <QDialog>
#include <QList>
#include <QPair>

#include <functional>

class QComboBox;
class QLabel;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QTimer;

namespace dictora {

class SettingsToggleCard;

// Microphone, language and recognition device, written to the preferences as they are
// picked; the running recogniser takes them from the next dictation on.
class RecognitionSettingsView : public QDialog {
    Q_OBJECT
public:
    struct Choices {
        QList<QPair<QString, QString>> languages; // code, name, in the model's order
        // Device setting value ("auto", "cpu", "gpu:N") and its label.
        QList<QPair<QString, QString>> devices;
        QString device;              // the current setting value
        QString automaticDevice;     // what "Automatic" picks now, and why
        std::function<void(const QString &value)> chooseDevice;
        // The sound server's inputs: name and description.
        QList<QPair<QString, QString>> microphones;
    };

    RecognitionSettingsView(ProductPreferences &preferences, Choices choices, QWidget *parent = nullptr);

    QComboBox *microphoneBox() const { return m_microphone; }
    QProgressBar *levelMeter() const { return m_level; }

public Q_SLOTS:
    // The chosen input's level now, 0 to 1.
    void showLevel(float level);
    // The sound server's inputs now (name, description), as they are plugged in or out.
    void setMicrophones(const QList<QPair<QString, QString>> &microphones);

public:
    SettingsToggleCard *keepClipboard() const { return m_keepClipboard; }

Q_SIGNALS:
    void vocabularyRequested();

private:
    ProductPreferences &m_preferences;
    Choices m_choices;
    QComboBox *m_language;
    QComboBox *m_device;
    QComboBox *m_microphone;
    QProgressBar *m_level;
    QPushButton *m_vocabulary;
    SettingsToggleCard *m_keepClipboard;
};

// The names and terms recognition should expect, one per line, given to the
// model as its prompt. Says how much of it the model reads.
class VocabularySheet : public QDialog {
    Q_OBJECT
public:
    // Tokens `prompt` takes and how many the model reads; -1 for both when
    // no model is loaded to count with.
    using Measure = std::function<void(const QString &prompt, std::function<void(int tokens, int limit)> done)>;

    VocabularySheet(ProductPreferences &preferences, Measure measure, QWidget *parent = nullptr);

    QPlainTextEdit *editor() const { return m_editor; }
    QLabel *fit() const { return m_fit; }
    // The terms as typed, cleaned the way the preferences keep them.
    QStringList terms() const;
    // The message under the list for this count.
    static QString fitMessage(int tokens, int limit, bool estimated);
    // Without a model to count with: roughly one token per three bytes.
    static int estimateTokens(const QString &prompt);
    static constexpr int kUsualLimit = 224;

private:
    void measureNow();

    ProductPreferences &m_preferences;
    Measure m_measure;
    QPlainTextEdit *m_editor;
    QLabel *m_fit;
    QTimer *m_debounce;
    int m_generation = 0;
};

} // namespace dictora
