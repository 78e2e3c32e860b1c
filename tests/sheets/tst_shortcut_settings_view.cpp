#include "home/sheets/ShortcutCaptureField.h"
#include "home/sheets/ShortcutSettingsView.h"

#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>
#include <QCheckBox>
#include <QtTest>

using namespace dictora;

namespace {

// X keycodes of the keys used below (evdev + 8).
constexpr quint32 kXK = 45;
constexpr quint32 kXBacktick = 49;
constexpr quint32 kXControl = 37;

QKeyEvent keyPress(int qtKey, Qt::KeyboardModifiers modifiers, quint32 xKeycode, const QString &text)
{
    return QKeyEvent(QEvent::KeyPress, qtKey, modifiers, xKeycode, 0, 0, text);
}

void press(QWidget *field, int qtKey, Qt::KeyboardModifiers modifiers, quint32 xKeycode, const QString &text)
{
    QKeyEvent event = keyPress(qtKey, modifiers, xKeycode, text);
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

class ShortcutSettingsViewTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_settingsCount = 0;

    std::unique_ptr<QSettings> freshSettings()
    {
        // A new file per case: QSettings caches files by path within a process.
        return std::make_unique<QSettings>(m_dir.filePath(QStringLiteral("prefs-%1.ini").arg(++m_settingsCount)),
                                           QSettings::IniFormat);
    }

    static void saveShot(QWidget &w, const QString &name)
    {
        QDir().mkpath(QStringLiteral(DICTORA_SCREENSHOT_DIR));
        QCoreApplication::processEvents();
        w.grab().save(QStringLiteral(DICTORA_SCREENSHOT_DIR "/") + name + QStringLiteral(".png"));
    }

private Q_SLOTS:
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

        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        int calls = 0;
        ShortcutSettingsView view(
            preferences, [&](const GlobalShortcut &) { ++calls; return ShortcutUpdateResult::updated(); }, {});
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
        if (QByteArray(QTest::currentDataTag()).startsWith("Super"))
            saveShot(view, QStringLiteral("shortcut-invalid"));
    }

    void everyKeyPressReplacesTheCandidate()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        ShortcutSettingsView view(preferences, [](const GlobalShortcut &) { return ShortcutUpdateResult::updated(); }, {});
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
    }
    void updateResults()
    {
        QFETCH(int, kind);
        QFETCH(QString, message);
        QFETCH(bool, closes);
        QFETCH(int, feedback);
        QFETCH(bool, continueVisible);

        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        QList<GlobalShortcut> asked;
        ShortcutSettingsView view(
            preferences,
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
            saveShot(view, QStringLiteral("shortcut-") + QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-'));
        }
    }

    void continueWaitsForPermissionThenCloses()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        int continued = 0;
        ShortcutSettingsView view(
            preferences, [](const GlobalShortcut &) { return ShortcutUpdateResult::needsAccessibility(); },
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
        preferences.setKeyboardShortcut(
            GlobalShortcut{9, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::shift}, QStringLiteral("V")});
        QCOMPARE(accepted.size(), 0);
        // The controller installing the waiting candidate does.
        preferences.setKeyboardShortcut(ctrlAltK());
        QCOMPARE(accepted.size(), 1);
        QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::none);
    }

    // A desktop that asks first: the sheet waits, and says so when the desktop refuses.
    void desktopRefusalEndsTheWait()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        ShortcutSettingsView view(
            preferences, [](const GlobalShortcut &) { return ShortcutUpdateResult::waitingForDesktop(); }, {});
        view.show();
        pressCtrlAltK(view);
        view.applyCandidate();
        QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::waitingForPermission);
        view.updateRefused(QStringLiteral("The shortcut was declined in the desktop's dialog."));
        QCOMPARE(view.feedback(), ShortcutSettingsView::Feedback::failure);
        QVERIFY(view.isVisible());
        QCOMPARE(preferences.keyboardShortcut(), GlobalShortcut::defaultShortcut());
    }

    void cancelChangesNothingAndUpdateShowsNextTime()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        const auto update = [&](const GlobalShortcut &candidate) {
            preferences.setKeyboardShortcut(candidate);
            return ShortcutUpdateResult::updated();
        };
        {
            ShortcutSettingsView view(preferences, update, {});
            QSignalSpy rejected(&view, &QDialog::rejected);
            view.show();
            QCOMPARE(view.currentText(), QStringLiteral("`"));
            saveShot(view, QStringLiteral("shortcut-initial"));
            pressCtrlAltK(view);
            QTest::mouseClick(view.findChild<QPushButton *>(QStringLiteral("cancel")), Qt::LeftButton);
            QCOMPARE(rejected.size(), 1);
            QCOMPARE(preferences.keyboardShortcut(), GlobalShortcut::defaultShortcut());
        }
        {
            ShortcutSettingsView view(preferences, update, {});
            view.show();
            pressCtrlAltK(view);
            view.applyCandidate();
            QVERIFY(!view.isVisible());
        }
        ShortcutSettingsView next(preferences, update, {});
        QCOMPARE(next.currentText(), QStringLiteral("Ctrl+Alt+K"));
        QVERIFY(!next.candidate());
    }

    // Hold to talk is stored at once and leaves the captured candidate alone.
    void holdToTalkIsStoredWithoutUpdate()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        int updates = 0;
        const auto update = [&](const GlobalShortcut &) { return ++updates, ShortcutUpdateResult::updated(); };
        {
            ShortcutSettingsView view(preferences, update, {});
            view.show();
            auto *hold = view.findChild<QCheckBox *>(QStringLiteral("holdToTalk"));
            QVERIFY(hold && !hold->isChecked());
            pressCtrlAltK(view);
            QTest::mouseClick(hold, Qt::LeftButton, {}, QPoint(8, hold->height() / 2)); // on the box
            QVERIFY(preferences.holdToTalk());
            QVERIFY(view.candidate());
            QCOMPARE(updates, 0);
        }
        QTRY_VERIFY(ProductPreferences(*settings).holdToTalk()); // written on the preferences' own thread
        ShortcutSettingsView again(preferences, update, {});
        QVERIFY(again.findChild<QCheckBox *>(QStringLiteral("holdToTalk"))->isChecked());
    }

    void desktopBindingSection()
    {
        auto settings = freshSettings();
        ProductPreferences preferences(*settings);
        ShortcutSettingsView view(preferences, [](const GlobalShortcut &) { return ShortcutUpdateResult::updated(); }, {});
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
};

QTEST_MAIN(ShortcutSettingsViewTest)
#include "tst_shortcut_settings_view.moc"
