// The settings sheets over real preferences and a real snippets file.
#include "home/sheets/RecognitionSettingsView.h"
#include "home/sheets/SettingsToggleCard.h"
#include "home/sheets/ShortcutCaptureField.h"
#include "home/sheets/ShortcutSettingsView.h"
#include "home/sheets/SnippetsSettingsView.h"
#include "support/Screenshot.h"
#include "support/TestSupport.h"

#include <QCheckBox>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

using namespace dictora;

namespace {

// X keycodes of the keys used below (evdev + 8).
constexpr quint32 kXK = 45;
constexpr quint32 kXBacktick = 49;
constexpr quint32 kXControl = 37;

void press(QWidget *field, int qtKey, Qt::KeyboardModifiers modifiers, quint32 xKeycode, const QString &text)
{
    QKeyEvent event(QEvent::KeyPress, qtKey, modifiers, xKeycode, 0, 0, text);
    QApplication::sendEvent(field, &event);
}

// Ctrl+Alt+K into the sheet's capture field, as a keyboard sends it.
void pressCtrlAltK(QWidget &view)
{
    press(view.findChild<ShortcutCaptureField *>(), Qt::Key_K, Qt::ControlModifier | Qt::AltModifier, kXK,
          QStringLiteral("\x0b"));
}

GlobalShortcut ctrlAltK()
{
    return GlobalShortcut{40, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::option}, QStringLiteral("K")};
}

} // namespace

class SettingsSheetsTest : public QObject {
    Q_OBJECT

    // A fresh folder per case: QSettings caches files by path within a process.
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;

    static ShortcutUpdateResult updated(const GlobalShortcut &) { return ShortcutUpdateResult::updated(); }
    static void saveShot(QWidget &w, const QString &name) { test::saveScreenshot(w, QStringLiteral(DICTORA_SCREENSHOT_DIR), name); }

    QString snippetsFile() const { return m_dir->filePath(QStringLiteral("Dictora/snippets.json")); }
    void writeFile(const QByteArray &bytes) { QVERIFY(test::writeFile(snippetsFile(), bytes)); }

    // What is on disk, as "trigger=expansion" in file order.
    QStringList onDisk() const
    {
        QStringList pairs;
        for (const QJsonValue &v : QJsonDocument::fromJson(test::readFile(snippetsFile())).array())
            pairs << v[QLatin1String("trigger")].toString() + u'=' + v[QLatin1String("expansion")].toString();
        return pairs;
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_settings = std::make_unique<QSettings>(m_dir->filePath(QStringLiteral("prefs.ini")), QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
    }

    void cleanup()
    {
        m_preferences.reset();
        m_settings.reset();
    }

    void capturesKeyPress_data()
    {
        QTest::addColumn<int>("qtKey");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<quint32>("xKeycode");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("candidate");
        QTest::addColumn<QString>("display");
        QTest::addColumn<bool>("updateEnabled"); // otherwise a message says why

        QTest::newRow("Super-K needs a second modifier")
            << int(Qt::Key_K) << int(Qt::MetaModifier) << kXK << QStringLiteral("k") << true << QStringLiteral("Super+K") << false;
        QTest::newRow("Ctrl-Alt-K with a control character")
            << int(Qt::Key_K) << int(Qt::ControlModifier | Qt::AltModifier) << kXK << QStringLiteral("\x0b") << true
            << QStringLiteral("Ctrl+Alt+K") << true;
        QTest::newRow("the backtick alone") << int(Qt::Key_QuoteLeft) << 0 << kXBacktick << QStringLiteral("`") << true
                                            << QStringLiteral("`") << true;
        QTest::newRow("a key outside the table") << int(Qt::Key_unknown) << int(Qt::ControlModifier | Qt::AltModifier)
                                                 << quint32(250) << QString() << false << QString() << false;
    }
    void capturesKeyPress()
    {
        QFETCH(int, qtKey);
        QFETCH(int, modifiers);
        QFETCH(quint32, xKeycode);
        QFETCH(QString, text);
        QFETCH(bool, candidate);
        QFETCH(QString, display);
        QFETCH(bool, updateEnabled);

        int calls = 0;
        ShortcutSettingsView view(*m_preferences, [&](const GlobalShortcut &) { ++calls; return ShortcutUpdateResult::updated(); }, {});
        view.show();
        auto *field = view.findChild<ShortcutCaptureField *>();
        QVERIFY(field);
        press(field, qtKey, Qt::KeyboardModifiers(modifiers), xKeycode, text);

        QCOMPARE(view.candidate().has_value(), candidate);
        if (candidate)
            QCOMPARE(view.candidate()->displayText(), display);
        auto *validation = view.findChild<QLabel *>(QStringLiteral("validation"));
        QCOMPARE(validation->isVisible(), !updateEnabled);
        QCOMPARE(validation->text(), view.validationMessage());
        QCOMPARE(view.validationMessage().isEmpty(), updateEnabled);
        auto *update = view.findChild<QPushButton *>(QStringLiteral("update"));
        QCOMPARE(update->isEnabled(), updateEnabled);
        QTest::mouseClick(update, Qt::LeftButton);
        QCOMPARE(calls, updateEnabled ? 1 : 0);
        if (!updateEnabled)
            saveShot(view, QStringLiteral("shortcut-invalid"));
    }

    void everyKeyPressReplacesTheCandidate()
    {
        ShortcutSettingsView view(*m_preferences, updated, {});
        view.show();
        auto *field = view.findChild<ShortcutCaptureField *>();
        press(field, Qt::Key_Control, Qt::ControlModifier, kXControl, QString()); // a lone modifier waits
        QVERIFY(!view.candidate() && view.validationMessage().isEmpty());
        press(field, Qt::Key_K, Qt::MetaModifier, kXK, QStringLiteral("k"));
        QVERIFY(!view.validationMessage().isEmpty());
        // Escape and Tab are candidates too, not ways out of the field.
        press(field, Qt::Key_Escape, Qt::NoModifier, 9, QString());
        QVERIFY(view.isVisible());
        QVERIFY(view.candidate().has_value());
        press(field, Qt::Key_K, Qt::ControlModifier | Qt::AltModifier, kXK, QStringLiteral("\x0b"));
        QCOMPARE(*view.candidate(), ctrlAltK());
        QVERIFY(view.validationMessage().isEmpty());
    }

    void updateResults_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("closes");
        QTest::addColumn<int>("feedback");
        QTest::addColumn<bool>("continueVisible");

        using K = ShortcutUpdateResult::Kind;
        using F = ShortcutSettingsView::Feedback;
        QTest::newRow("updated") << int(K::updated) << QString() << true << int(F::none) << false;
        QTest::newRow("needs accessibility") << int(K::needsAccessibility) << QString() << false << int(F::permissionRequired) << true;
        QTest::newRow("failed with a message")
            << int(K::failed) << QStringLiteral("Another program already uses Ctrl+Alt+K.") << false << int(F::failure) << false;
        QTest::newRow("failed without a message") << int(K::failed) << QString() << false << int(F::failure) << false;
        // A desktop that asks first: the sheet waits until it answers.
        QTest::newRow("waiting for the desktop") << int(K::waitingForDesktop) << QString() << false << int(F::waitingForPermission) << false;
    }
    void updateResults()
    {
        QFETCH(int, kind);
        QFETCH(QString, message);
        QFETCH(bool, closes);
        QFETCH(int, feedback);
        QFETCH(bool, continueVisible);

        QList<GlobalShortcut> asked;
        ShortcutSettingsView view(*m_preferences,
            [&](const GlobalShortcut &candidate) {
                asked.append(candidate);
                return ShortcutUpdateResult{ShortcutUpdateResult::Kind(kind), message};
            },
            {});
        QSignalSpy accepted(&view, &QDialog::accepted);
        view.show();
        pressCtrlAltK(view);
        QTest::mouseClick(view.findChild<QPushButton *>(QStringLiteral("update")), Qt::LeftButton);

        QCOMPARE(asked, QList<GlobalShortcut>{ctrlAltK()});
        QCOMPARE(accepted.size(), closes ? 1 : 0);
        QCOMPARE(view.isVisible(), !closes);
        QCOMPARE(int(view.feedback()), feedback);
        QCOMPARE(view.feedbackText().isEmpty(), closes);
        if (!message.isEmpty())
            QCOMPARE(view.feedbackText(), message); // the controller's reason, not a generic one
        if (!closes) {
            QCOMPARE(view.findChild<QLabel *>(QStringLiteral("feedbackText"))->text(), view.feedbackText());
            QCOMPARE(view.findChild<QPushButton *>(QStringLiteral("continue"))->isVisible(), continueVisible);
            saveShot(view, QStringLiteral("shortcut"));
        }
        if (kind == int(ShortcutUpdateResult::Kind::waitingForDesktop)) { // and says so when the desktop refuses
            view.updateRefused(QStringLiteral("The shortcut was declined in the desktop's dialog."));
            QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::failure);
            QVERIFY(view.isVisible());
            QCOMPARE(m_preferences->keyboardShortcut(), GlobalShortcut::defaultShortcut());
        }
    }

    void continueWaitsForPermissionThenCloses()
    {
        int continued = 0;
        ShortcutSettingsView view(*m_preferences, [](const GlobalShortcut &) { return ShortcutUpdateResult::needsAccessibility(); },
            [&] { ++continued; });
        QSignalSpy accepted(&view, &QDialog::accepted);
        view.show();
        pressCtrlAltK(view);
        view.applyCandidate();
        QTest::mouseClick(view.findChild<QPushButton *>(QStringLiteral("continue")), Qt::LeftButton);
        QCOMPARE(continued, 1);
        QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::waitingForPermission);
        QVERIFY(!view.findChild<QPushButton *>(QStringLiteral("continue"))->isVisible());
        saveShot(view, QStringLiteral("shortcut-waiting"));

        // Some other shortcut stored meanwhile does not close the sheet.
        m_preferences->setKeyboardShortcut(
            GlobalShortcut{9, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::shift}, QStringLiteral("V")});
        QCOMPARE(accepted.size(), 0);
        // The controller installing the waiting candidate does.
        m_preferences->setKeyboardShortcut(ctrlAltK());
        QCOMPARE(accepted.size(), 1);
        QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::none);
    }

    // Cancel stores nothing; hold to talk is stored at once and leaves the
    // candidate alone; Update stores it. The next opening shows both.
    void cancelHoldToTalkAndUpdate()
    {
        int updates = 0;
        const auto update = [&](const GlobalShortcut &candidate) {
            ++updates;
            m_preferences->setKeyboardShortcut(candidate);
            return ShortcutUpdateResult::updated();
        };
        {
            ShortcutSettingsView view(*m_preferences, update, {});
            QSignalSpy rejected(&view, &QDialog::rejected);
            view.show();
            QCOMPARE(view.currentText(), QStringLiteral("`"));
            saveShot(view, QStringLiteral("shortcut-initial"));
            pressCtrlAltK(view);
            QTest::mouseClick(view.findChild<QPushButton *>(QStringLiteral("cancel")), Qt::LeftButton);
            QCOMPARE(rejected.size(), 1);
            QCOMPARE(m_preferences->keyboardShortcut(), GlobalShortcut::defaultShortcut());
        }
        {
            ShortcutSettingsView view(*m_preferences, update, {});
            view.show();
            auto *hold = view.findChild<QCheckBox *>(QStringLiteral("holdToTalk"));
            QVERIFY(hold && !hold->isChecked());
            pressCtrlAltK(view);
            QTest::mouseClick(hold, Qt::LeftButton, {}, QPoint(8, hold->height() / 2)); // on the box
            QVERIFY(m_preferences->holdToTalk());
            QVERIFY(view.candidate());
            QCOMPARE(updates, 0);
            view.applyCandidate();
            QVERIFY(!view.isVisible());
        }
        QTRY_VERIFY(ProductPreferences(*m_settings).holdToTalk()); // written on the preferences' own thread
        ShortcutSettingsView next(*m_preferences, update, {});
        QCOMPARE(next.currentText(), QStringLiteral("Ctrl+Alt+K"));
        QVERIFY(!next.candidate());
        QVERIFY(next.findChild<QCheckBox *>(QStringLiteral("holdToTalk"))->isChecked());
    }

    void desktopBindingSection()
    {
        ShortcutSettingsView view(*m_preferences, updated, {});
        view.show();
        auto *text = view.findChild<QLabel *>(QStringLiteral("desktopBinding"));
        auto *action = view.findChild<QPushButton *>(QStringLiteral("desktopAction"));
        QVERIFY(!text->isVisible() && !action->isVisible());

        view.setDesktopBinding(QStringLiteral("Add to ~/.config/sway/config:\nbindsym grave exec dictora toggle"));
        QVERIFY(text->isVisible() && !action->isVisible()); // nothing to click where the user edits a file
        int added = 0;
        view.setDesktopBinding(QStringLiteral("Dictora can add a GNOME keyboard shortcut."), QStringLiteral("Add GNOME Shortcut"),
            [&] { ++added; });
        QVERIFY(action->isVisible());
        QTest::mouseClick(action, Qt::LeftButton);
        QCOMPARE(added, 1);
        saveShot(view, QStringLiteral("shortcut-desktop-binding"));
        view.setDesktopBinding({});
        QVERIFY(!text->isVisible() && !action->isVisible());
    }

    void addEditRemoveWriteTheFile()
    {
        SnippetStore store(snippetsFile());
        SnippetsSettingsView view(store, *m_preferences);
        view.show();
        QVERIFY(view.showsEmptyState());
        saveShot(view, QStringLiteral("snippets-empty"));

        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QCOMPARE(view.rows().size(), 1);
        QVERIFY(!view.showsEmptyState());
        QCOMPARE(onDisk(), QStringList{"="});
        const auto row = view.rows().first();

        QTest::keyClicks(row.trigger, QStringLiteral("my email"));
        QTest::keyClicks(row.expansion, QStringLiteral("jordan@example.com"));
        QCOMPARE(onDisk(), QStringList{"my email=jordan@example.com"});
        // Typing saves per keystroke without rebuilding the row under the cursor.
        QCOMPARE(view.rows().first().trigger, row.trigger);
        QCOMPARE(row.expansion->text(), QStringLiteral("jordan@example.com"));

        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QTest::keyClicks(view.rows().at(1).trigger, QStringLiteral("sig"));
        QTest::keyClicks(view.rows().at(1).expansion, QStringLiteral("Best regards."));
        saveShot(view, QStringLiteral("snippets-two-rows"));

        QTest::mouseClick(view.rows().first().remove, Qt::LeftButton);
        QTRY_COMPARE(view.rows().size(), 1);
        QCOMPARE(onDisk(), QStringList{"sig=Best regards."});
        QCOMPARE(view.rows().first().trigger->text(), QStringLiteral("sig"));

        QTest::mouseClick(view.rows().first().remove, Qt::LeftButton);
        QTRY_VERIFY(view.rows().isEmpty());
        QVERIFY(view.showsEmptyState());
        QCOMPARE(onDisk(), QStringList());
        QVERIFY(QJsonDocument::fromJson(test::readFile(snippetsFile())).isArray()); // the file stays, empty
    }

    void existingFileShowsRowsInOrderAndEditsOnlyOne()
    {
        writeFile(R"([
 {"expansion":"by the way","id":"6F1C3D32-6C0A-4B9B-9E55-1A1B2C3D4E5F","trigger":"btw"},
 {"expansion":"Best regards.","id":"0E7D0A49-2B77-4C3C-8E0F-2F4A5B6C7D8E","trigger":"sig"}
])");
        SnippetStore store(snippetsFile());
        SnippetsSettingsView view(store, *m_preferences);
        view.show();
        QCOMPARE(view.rows().size(), 2);
        QCOMPARE(view.rows().at(0).trigger->text(), QStringLiteral("btw"));
        QCOMPARE(view.rows().at(1).expansion->text(), QStringLiteral("Best regards."));

        QLineEdit *expansion = view.rows().at(1).expansion;
        expansion->setFocus();
        expansion->end(false);
        QTest::keyClick(expansion, Qt::Key_Backspace);
        QTest::keyClicks(expansion, QStringLiteral(", Jordan"));
        QCOMPARE(onDisk(), (QStringList{"btw=by the way", "sig=Best regards, Jordan"}));
    }

    void unreadableFileStartsEmptyAndKeepsIt()
    {
        writeFile("[{\"id\":\"6F1C3D32-6C0A-4B9B-9E55-1A1B2C3D4E5F\",\"trigger\":\"btw\"}]");
        SnippetStore store(snippetsFile());
        SnippetsSettingsView view(store, *m_preferences);
        QVERIFY(view.showsEmptyState());
        QCOMPARE(view.rows().size(), 0);
        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QCOMPARE(view.rows().size(), 1);
    }

    void togglesWriteThePreferences_data()
    {
        QTest::addColumn<QString>("card");
        QTest::addColumn<QString>("key");
        QTest::newRow("format words") << "formatWords" << QString::fromLatin1(ProductPreferences::kFormattingKey);
        QTest::newRow("use snippets") << "useSnippets" << QString::fromLatin1(ProductPreferences::kSnippetsKey);
    }
    void togglesWriteThePreferences()
    {
        QFETCH(QString, card);
        QFETCH(QString, key);
        SnippetStore store(snippetsFile());
        SnippetsSettingsView view(store, *m_preferences);
        view.show();
        auto *toggle = view.findChild<SettingsToggleCard *>(card);
        QVERIFY(toggle);
        QVERIFY(toggle->isOn()); // both default to on

        QTest::mouseClick(toggle->toggle(), Qt::LeftButton);
        QVERIFY(!toggle->isOn());
        m_settings->sync();
        QTRY_COMPARE(m_settings->value(key).toBool(), false); // written on the preferences' own thread
        const bool formatting = card == QLatin1String("formatWords");
        QCOMPARE(formatting ? m_preferences->formattingEnabled() : m_preferences->snippetsEnabled(), false);
        QCOMPARE(formatting ? m_preferences->snippetsEnabled() : m_preferences->formattingEnabled(), true);

        // A change made elsewhere (the onboarding's "USE SNIPPETS") shows here.
        if (formatting)
            m_preferences->setFormattingEnabled(true);
        else
            m_preferences->setSnippetsEnabled(true);
        QVERIFY(toggle->isOn());
    }

    // The Dictation sheet stores each choice, and shows a chosen microphone
    // that is not plugged in rather than silently the default.
    void microphoneChoice_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("shown");
        QTest::newRow("system default") << QString() << QStringLiteral("System default");
        QTest::newRow("a listed input") << QStringLiteral("usb_mic") << QStringLiteral("USB Microphone");
        QTest::newRow("unplugged") << QStringLiteral("gone_mic")
                                   << QStringLiteral("gone_mic (not connected: the default is used)");
    }
    void microphoneChoice()
    {
        QFETCH(QString, stored);
        QFETCH(QString, shown);
        m_preferences->setMicrophoneSource(stored);
        RecognitionSettingsView::Choices choices;
        choices.microphones = {{QStringLiteral("usb_mic"), QStringLiteral("USB Microphone")},
            {QStringLiteral("builtin"), QStringLiteral("Built-in Audio")}};
        RecognitionSettingsView sheet(*m_preferences, choices);
        QCOMPARE(sheet.microphoneBox()->currentText(), shown);

        // Picking another is stored at once; the system default stores nothing.
        for (const int index : {2, 0}) {
            Q_EMIT sheet.microphoneBox()->activated(index);
            QTRY_COMPARE(ProductPreferences(*m_settings).microphoneSource(), index == 2 ? QStringLiteral("builtin") : QString());
        }
        sheet.showLevel(0.42f);
        QCOMPARE(sheet.levelMeter()->value(), 42);
        sheet.showLevel(3.f);
        QCOMPARE(sheet.levelMeter()->value(), 100);
    }
};

QTEST_MAIN(SettingsSheetsTest)
#include "tst_settings_sheets.moc"
