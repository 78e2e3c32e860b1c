#include "home/sheets/RecognitionSettingsView.h"

#include "home/sheets/SettingsToggleCard.h"

#include <QComboBox>
#include <QSignalBlocker>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace dictora {

namespace {
QLabel *titleLabel(const QString &text, QWidget *parent)
{
    auto *title = new QLabel(text, parent);
    QFont font = title->font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    font.setBold(true);
    title->setFont(font);
    return title;
}

QHBoxLayout *header(QDialog *dialog, const QString &title)
{
    auto *done = new QPushButton(QStringLiteral("Done"), dialog);
    done->setObjectName(QStringLiteral("done"));
    done->setAutoDefault(false);
    QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
    auto *row = new QHBoxLayout;
    row->addWidget(titleLabel(title, dialog), 1);
    row->addWidget(done);
    return row;
}
} // namespace

RecognitionSettingsView::RecognitionSettingsView(ProductPreferences &preferences, Choices choices, QWidget *parent)
    : QDialog(parent), m_preferences(preferences), m_choices(std::move(choices)), m_language(new QComboBox(this)),
      m_device(new QComboBox(this)), m_microphone(new QComboBox(this)), m_level(new QProgressBar(this)),
      m_vocabulary(new QPushButton(QStringLiteral("Vocabulary…"), this)),
      m_keepClipboard(new SettingsToggleCard(QStringLiteral("KEEP MY CLIPBOARD"), this))
{
    setObjectName(QStringLiteral("RecognitionSettingsView"));
    setWindowTitle(QStringLiteral("Dictation"));
    resize(560, 320);

    m_language->setObjectName(QStringLiteral("language"));
    m_language->addItem(QStringLiteral("Detect automatically"), QString::fromLatin1(ProductPreferences::kAutomaticLanguage));
    for (const auto &[code, name] : m_choices.languages) {
        QString label = name;
        if (!label.isEmpty())
            label[0] = label[0].toUpper();
        m_language->addItem(code == QLatin1String("en") ? label + QStringLiteral(" (default)") : label, code);
    }
    m_language->setCurrentIndex(std::max(0, m_language->findData(m_preferences.language())));
    connect(m_language, &QComboBox::activated, this,
        [this](int index) { m_preferences.setLanguage(m_language->itemData(index).toString()); });
    auto *languageNote = new QLabel(
        QStringLiteral("Tidying (fillers, spoken lists, sentence case) is for English; other languages keep their words "
                       "as recognised, with snippets."),
        this);
    languageNote->setWordWrap(true);
    languageNote->setProperty("role", "secondary");

    m_device->setObjectName(QStringLiteral("device"));
    for (const auto &[value, label] : m_choices.devices)
        m_device->addItem(label, value);
    m_device->setCurrentIndex(std::max(0, m_device->findData(m_choices.device)));
    m_device->setEnabled(m_device->count() > 1);
    connect(m_device, &QComboBox::activated, this, [this](int index) {
        if (m_choices.chooseDevice)
            m_choices.chooseDevice(m_device->itemData(index).toString());
    });
    auto *deviceNote = new QLabel(m_choices.automaticDevice, this);
    deviceNote->setObjectName(QStringLiteral("automaticDevice"));
    deviceNote->setWordWrap(true);
    deviceNote->setProperty("role", "secondary");

    m_microphone->setObjectName(QStringLiteral("microphone"));
    setMicrophones(m_choices.microphones);
    connect(m_microphone, &QComboBox::activated, this,
        [this](int index) { m_preferences.setMicrophoneSource(m_microphone->itemData(index).toString()); });
    m_level->setObjectName(QStringLiteral("microphoneLevel"));
    m_level->setRange(0, 100);
    m_level->setValue(0);
    m_level->setTextVisible(false);
    m_level->setMaximumHeight(8);
    m_level->setAccessibleName(QStringLiteral("Microphone level"));

    m_vocabulary->setObjectName(QStringLiteral("vocabulary"));
    m_vocabulary->setAutoDefault(false);
    connect(m_vocabulary, &QPushButton::clicked, this, &RecognitionSettingsView::vocabularyRequested);

    auto *form = new QFormLayout;
    form->addRow(QStringLiteral("Microphone"), m_microphone);
    form->addRow(QString(), m_level);
    form->addRow(QStringLiteral("Language"), m_language);
    form->addRow(QString(), languageNote);
    if (!m_choices.devices.isEmpty()) {
        form->addRow(QStringLiteral("Device"), m_device);
        form->addRow(QString(), deviceNote);
    } else {
        m_device->hide();
        deviceNote->hide();
    }
    form->addRow(QStringLiteral("Names and terms"), m_vocabulary);

    m_keepClipboard->setObjectName(QStringLiteral("keepClipboard"));
    m_keepClipboard->setOn(m_preferences.restoresClipboard());
    connect(m_keepClipboard, &SettingsToggleCard::toggled, this,
        [this](bool on) { m_preferences.setRestoresClipboard(on); });
    auto *clipboardNote = new QLabel(QStringLiteral("Off: a dictation stays on the clipboard after it is pasted. On: "
                                                    "what you had copied comes back once the paste is done."),
        this);
    clipboardNote->setWordWrap(true);
    clipboardNote->setProperty("role", "secondary");

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 18);
    layout->addLayout(header(this, QStringLiteral("Dictation")));
    layout->addLayout(form);
    layout->addWidget(m_keepClipboard);
    layout->addWidget(clipboardNote);
    layout->addStretch(1);
}

void RecognitionSettingsView::setMicrophones(const QList<QPair<QString, QString>> &microphones)
{
    const QSignalBlocker quiet(m_microphone); // a refill is no choice of the user's
    m_choices.microphones = microphones;
    m_microphone->clear();
    m_microphone->addItem(QStringLiteral("System default"), QString());
    for (const auto &[name, description] : microphones)
        m_microphone->addItem(description, name);
    const QString chosen = m_preferences.microphoneSource();
    if (!chosen.isEmpty() && m_microphone->findData(chosen) < 0)
        m_microphone->addItem(QStringLiteral("%1 (not connected: the default is used)").arg(chosen), chosen);
    m_microphone->setCurrentIndex(std::max(0, m_microphone->findData(chosen)));
}

void RecognitionSettingsView::showLevel(float level)
{
    m_level->setValue(qRound(std::clamp(level, 0.f, 1.f) * 100));
}

VocabularySheet::VocabularySheet(ProductPreferences &preferences, Measure measure, QWidget *parent)
    : QDialog(parent), m_preferences(preferences), m_measure(std::move(measure)), m_editor(new QPlainTextEdit(this)),
      m_fit(new QLabel(this)), m_debounce(new QTimer(this))
{
    setObjectName(QStringLiteral("VocabularySheet"));
    setWindowTitle(QStringLiteral("Vocabulary"));
    resize(520, 460);

    auto *intro = new QLabel(QStringLiteral("Names and terms you dictate often, one per line. Recognition is told to "
                                            "expect them, so they come out spelled your way."),
        this);
    intro->setWordWrap(true);
    m_editor->setObjectName(QStringLiteral("terms"));
    m_editor->setPlaceholderText(QStringLiteral("Aoife Ní Bhriain\nKubernetes\nDictora"));
    m_editor->setPlainText(m_preferences.vocabulary().join(QLatin1Char('\n')));
    m_fit->setObjectName(QStringLiteral("fit"));
    m_fit->setWordWrap(true);

    m_debounce->setSingleShot(true);
    m_debounce->setInterval(300);
    connect(m_debounce, &QTimer::timeout, this, &VocabularySheet::measureNow);
    connect(m_editor, &QPlainTextEdit::textChanged, m_debounce, qOverload<>(&QTimer::start));
    // Kept as typed, also when the sheet is closed another way.
    connect(this, &QDialog::finished, this, [this] { m_preferences.setVocabulary(terms()); });

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 18);
    layout->addLayout(header(this, QStringLiteral("Vocabulary")));
    layout->addWidget(intro);
    layout->addWidget(m_editor, 1);
    layout->addWidget(m_fit);
    measureNow();
}

QStringList VocabularySheet::terms() const
{
    return ProductPreferences::cleanVocabulary(m_editor->toPlainText().split(QLatin1Char('\n')));
}

int VocabularySheet::estimateTokens(const QString &prompt)
{
    return int((prompt.toUtf8().size() + 2) / 3);
}

QString VocabularySheet::fitMessage(int tokens, int limit, bool estimated)
{
    if (tokens <= 0)
        return QStringLiteral("No terms: recognition uses its own spelling.");
    const QString count = estimated ? QStringLiteral("about %1").arg(tokens) : QString::number(tokens);
    if (tokens <= limit)
        return QStringLiteral("%1 of the %2 tokens the model reads.").arg(count).arg(limit);
    return QStringLiteral("Too long: the list takes %1 tokens and the model reads only the last %2, so the terms at "
                          "the top are ignored. Remove some terms.")
        .arg(count)
        .arg(limit);
}

void VocabularySheet::measureNow()
{
    const QString prompt = ProductPreferences::vocabularyPrompt(terms());
    const int generation = ++m_generation;
    const auto show = [this, prompt](int tokens, int limit) {
        const bool estimated = limit < 0;
        if (estimated) {
            tokens = estimateTokens(prompt);
            limit = kUsualLimit;
        }
        m_fit->setText(fitMessage(prompt.isEmpty() ? 0 : tokens, limit, estimated));
        m_fit->setProperty("tooLong", tokens > limit);
    };
    if (!m_measure) {
        show(-1, -1);
        return;
    }
    QPointer<VocabularySheet> self(this);
    m_measure(prompt, [self, generation, show](int tokens, int limit) {
        if (self && generation == self->m_generation)
            show(tokens, limit);
    });
}

} // namespace dictora
