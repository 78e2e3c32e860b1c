#include "history/HistoryStore.h"
#include "history/HistoryTestRecords.h"
#include "onboarding/ui/BundledFonts.h"
#include "onboarding/ui/OnboardingIllustrations.h"
#include "onboarding/ui/OnboardingStageShell.h"
#include "onboarding/ui/OnboardingView.h"
#include "support/Screenshot.h"

#include <QFile>
#include <QFontInfo>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSlider>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

using namespace dictora;
using S = OnboardingPermissionStatus;

Q_DECLARE_METATYPE(dictora::OnboardingStage)

namespace {

// Everything the screens stand on, built from real parts in a temp dir.
struct Fixture {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("Dictora.conf")), QSettings::IniFormat};
    ProductPreferences preferences{settings};
    DictoraState state;
    OnboardingModel model{true};
    TranscriptJournal journal{dir.filePath(QStringLiteral("Dictora/transcripts.jsonl"))};
    HistoryStore history{journal};
    QStringList calls;

    OnboardingActions actions()
    {
        const auto note = [this](const char *name) { return [this, name] { calls << QLatin1String(name); }; };
        OnboardingActions a;
        a.requestMicrophone = note("requestMicrophone");
        a.openMicrophoneSettings = note("openMicrophoneSettings");
        a.openAccessibilitySettings = note("openAccessibilitySettings");
        a.retryDownload = note("retryDownload");
        a.openSnippets = note("openSnippets");
        // What the controller's finish does.
        a.finish = [this] {
            calls << QStringLiteral("finish");
            if (model.stage() == OnboardingStage::ready && model.accuracyModelReady()) {
                model.setPresented(false);
                preferences.setHasCompletedOnboarding(true);
            }
        };
        a.microphoneReason = [] { return QStringLiteral("The sound server has no default input."); };
        a.accessibilityReason = [] { return QStringLiteral("Another program already owns the ` key."); };
        return a;
    }
};

QPushButton *button(OnboardingView &view, const QString &name)
{
    return view.currentScreen()->findChild<QPushButton *>(name);
}

QStringList visibleButtons(OnboardingStageShell *screen)
{
    QStringList texts;
    for (QPushButton *b : screen->findChildren<QPushButton *>())
        if (b->isVisibleTo(screen))
            texts << b->text();
    texts.sort();
    return texts;
}

void saveShot(OnboardingView &view, const QString &name)
{
    QVERIFY(test::saveScreenshot(view, QStringLiteral(DICTORA_SCREENSHOT_DIR), name));
}

} // namespace

class OnboardingViewTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Before registration the headline face is a bold system font; after it,
    // the embedded one where the build has it.
    void initTestCase()
    {
        QVERIFY(!displayFontAvailable());
        QCOMPARE(displayFont(40).weight(), QFont::Bold);
        QVERIFY(!QFontInfo(displayFont(40)).family().contains(QStringLiteral("Londrina")));
        QCOMPARE(registerBundledFonts(), QFile::exists(QStringLiteral(":/dictora/fonts/LondrinaSolid-Black.woff")));
        if (displayFontAvailable())
            QCOMPARE(QFontInfo(displayFont(40)).family(), QString::fromLatin1(kDisplayFontFamily));
    }

    void firstSearchWord_data()
    {
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<QString>("word");
        QTest::newRow("punctuation after the word") << QStringLiteral("Hello, world.") << QStringLiteral("Hello");
        QTest::newRow("leading blanks") << QStringLiteral("  \n testing one two") << QStringLiteral("testing");
        QTest::newRow("apostrophe kept") << QStringLiteral("Don't lose this") << QStringLiteral("Don't");
        QTest::newRow("leading quote skipped") << QStringLiteral("\"Quoted\" words") << QStringLiteral("Quoted");
        QTest::newRow("accented") << QStringLiteral("Écoute bien") << QStringLiteral("Écoute");
        QTest::newRow("no word at all") << QStringLiteral(" ... ") << QStringLiteral("...");
    }
    void firstSearchWord()
    {
        QFETCH(QString, transcript);
        QFETCH(QString, word);
        QCOMPARE(dictora::firstSearchWord(transcript), word);
    }

    // Which stage the model leaves the permission screen for.
    void leavesPermissions_data()
    {
        QTest::addColumn<bool>("presented");
        QTest::addColumn<int>("microphone");
        QTest::addColumn<int>("accessibility");
        QTest::addColumn<bool>("configured");
        QTest::addColumn<bool>("modelReady");
        QTest::addColumn<OnboardingStage>("expected");
        QTest::newRow("accessibility denied") << true << 2 << 1 << false << true << OnboardingStage::permissions;
        QTest::newRow("microphone undetermined") << true << 0 << 2 << true << true << OnboardingStage::permissions;
        QTest::newRow("first visit goes to placement") << true << 2 << 2 << false << false << OnboardingStage::microphonePosition;
        QTest::newRow("configured, model not ready") << true << 2 << 2 << true << false << OnboardingStage::permissions;
        QTest::newRow("configured, model ready") << true << 2 << 2 << true << true << OnboardingStage::practice;
        QTest::newRow("not presented") << false << 2 << 2 << true << true << OnboardingStage::permissions;
    }
    void leavesPermissions()
    {
        QFETCH(bool, presented);
        QFETCH(int, microphone);
        QFETCH(int, accessibility);
        QFETCH(bool, configured);
        QFETCH(bool, modelReady);
        QFETCH(OnboardingStage, expected);
        OnboardingModel model(true);
        model.setPermissions({S(microphone), S(accessibility)});
        model.setAccuracyModelReady(modelReady);
        if (configured)
            model.finishConfiguration();
        model.setStage(OnboardingStage::permissions);
        model.setPresented(presented);
        model.showPracticeWhenReady();
        QCOMPARE(model.stage(), expected);
    }

    // Which step shows, and which buttons it offers; each offered button runs
    // its action, none while a request is under way.
    void permissionScreen_data()
    {
        QTest::addColumn<int>("microphone");
        QTest::addColumn<int>("accessibility");
        QTest::addColumn<bool>("configured");
        QTest::addColumn<bool>("downloadFailed");
        QTest::addColumn<QString>("headline");
        QTest::addColumn<QStringList>("buttons");
        QTest::newRow("microphone not asked yet") << int(S::notDetermined) << int(S::notDetermined) << false << false
                                                  << "TURN ON YOUR MICROPHONE." << QStringList{"ALLOW MICROPHONE"};
        QTest::newRow("microphone denied") << int(S::denied) << int(S::authorized) << false << false
                                           << "TURN ON YOUR MICROPHONE." << QStringList{"OPEN MICROPHONE SETTINGS"};
        QTest::newRow("accessibility denied") << int(S::authorized) << int(S::denied) << false << false
                                              << "TURN ON DICTORA." << QStringList{"OPEN ACCESSIBILITY SETTINGS"};
        QTest::newRow("model still preparing") << int(S::authorized) << int(S::authorized) << true << false
                                               << "GETTING ACCURATE." << QStringList{};
        QTest::newRow("download failed") << int(S::authorized) << int(S::authorized) << true << true
                                         << "GETTING ACCURATE." << QStringList{"RETRY DOWNLOAD"};
    }
    void permissionScreen()
    {
        QFETCH(int, microphone);
        QFETCH(int, accessibility);
        QFETCH(bool, configured);
        QFETCH(bool, downloadFailed);
        QFETCH(QString, headline);
        QFETCH(QStringList, buttons);

        Fixture f;
        OnboardingView view(f.model, f.state, f.preferences, f.journal, f.actions());
        view.resize(640, 720);
        view.show();
        view.setModelPreparation({42, downloadFailed});
        if (configured) {
            f.model.setPermissions({S::authorized, S::authorized});
            f.model.finishConfiguration();
        }
        f.model.setPermissions({S(microphone), S(accessibility)});
        f.model.showPracticeWhenReady();

        QCOMPARE(view.shownStage(), OnboardingStage::permissions);
        auto *screen = view.currentScreen();
        QCOMPARE(screen->headline(), headline);
        QCOMPARE(visibleButtons(screen), buttons);
        // The reason the check gave is what the user reads.
        if (!configured)
            QCOMPARE(screen->detail(), microphone == int(S::authorized) ? f.actions().accessibilityReason() : f.actions().microphoneReason());
        auto *percent = screen->findChild<QLabel *>(QStringLiteral("percent"));
        QCOMPARE(percent->isVisibleTo(screen), configured);
        if (configured)
            QCOMPARE(percent->text(), QStringLiteral("42%"));

        f.model.setRequestingPermissions(true);
        for (QPushButton *b : screen->findChildren<QPushButton *>())
            if (b->isVisibleTo(screen) && b->objectName() != QLatin1String("retryDownload"))
                QVERIFY(!b->isEnabled());
        f.model.setRequestingPermissions(false);
        for (QPushButton *b : screen->findChildren<QPushButton *>())
            if (b->isVisibleTo(screen))
                QTest::mouseClick(b, Qt::LeftButton);
        QCOMPARE(f.calls.size(), buttons.size());
        saveShot(view, QStringLiteral("1-permissions"));
    }

    void practiceFollowsThePhase_data()
    {
        QTest::addColumn<QList<DictoraPhase>>("phases");
        QTest::addColumn<bool>("revisit");
        QTest::addColumn<QString>("headline");
        QTest::addColumn<bool>("flashing");
        const auto empty = QList<DictoraPhase>{DictoraPhase::recording(), DictoraPhase::finalizing(), DictoraPhase::idle()};
        QTest::newRow("before recording") << QList<DictoraPhase>{} << false << "PRESS THIS KEY." << true;
        QTest::newRow("microphone starting") << QList<DictoraPhase>{DictoraPhase::preparing()} << false
                                             << "YOUR MIC IS OPENING." << false;
        QTest::newRow("recording") << QList<DictoraPhase>{DictoraPhase::preparing(), DictoraPhase::recording()} << false
                                   << "FINISH SPEAKING. THEN PRESS THIS AGAIN." << true;
        QTest::newRow("transcribing") << empty.mid(0, 2) << false << "SAVING YOUR WORDS." << false;
        QTest::newRow("empty result") << empty << false << "PRESS Ctrl+Alt+K TO TRY AGAIN." << true;
        QTest::newRow("failed result")
            << QList<DictoraPhase>{DictoraPhase::recording(), DictoraPhase::error(QStringLiteral("No microphone."))} << false
            << "PRESS Ctrl+Alt+K TO TRY AGAIN." << true;
        // Coming back to practice later starts over.
        QTest::newRow("empty result, then a fresh visit") << empty << true << "PRESS THIS KEY." << true;
    }
    void practiceFollowsThePhase()
    {
        QFETCH(QList<DictoraPhase>, phases);
        QFETCH(bool, revisit);
        QFETCH(QString, headline);
        QFETCH(bool, flashing);

        Fixture f;
        f.preferences.setKeyboardShortcut({40, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::option},
                                           QStringLiteral("K")});
        f.model.setStage(OnboardingStage::practice);
        OnboardingView view(f.model, f.state, f.preferences, f.journal, f.actions());
        view.show();
        for (const DictoraPhase &phase : phases)
            f.state.setPhase(phase);
        if (revisit) {
            f.model.setStage(OnboardingStage::savedProof);
            f.model.setStage(OnboardingStage::practice);
        }
        QCOMPARE(view.currentScreen()->headline(), headline);
        if (QByteArray(QTest::currentDataTag()) == "failed result")
            QCOMPARE(view.currentScreen()->detail(), QStringLiteral("No microphone.")); // the error itself is shown
        auto *keyboard = view.currentScreen()->findChild<KeyboardIllustration *>(QStringLiteral("keyboard"));
        QVERIFY(keyboard);
        QCOMPARE(keyboard->isFlashing(), flashing);
        saveShot(view, QStringLiteral("4-practice"));
    }

    // Preferences also change from the tray and the settings sheet while a
    // screen is open; the screen shows the new value at once.
    void screensFollowPreferencesChangedElsewhere()
    {
        Fixture f;
        f.model.setStage(OnboardingStage::microphonePosition);
        OnboardingView view(f.model, f.state, f.preferences, f.journal, f.actions());
        view.show();
        const auto widget = [&](const char *name) { return view.currentScreen()->findChild<QWidget *>(QLatin1String(name)); };
        QVERIFY(!widget("spot-topRight")->property("checked").toBool() && !widget("size-small")->property("checked").toBool());
        f.preferences.setMicrophoneLocation(ScreenAnchor::topRight);
        f.preferences.setMicrophoneSize(OverlaySize::small);
        f.preferences.setMicrophoneOpacity(0.6);
        QVERIFY(widget("spot-topRight")->property("checked").toBool());
        QVERIFY(widget("size-small")->property("checked").toBool());
        QCOMPARE(widget("opacity")->property("value"), QVariant(60));

        // The shortcut, on the last screen and after a practice try.
        const GlobalShortcut ctrlAltK{40, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::option},
                                      QStringLiteral("K")};
        f.model.setStage(OnboardingStage::ready);
        f.preferences.setKeyboardShortcut(ctrlAltK);
        QCOMPARE(view.currentScreen()->detail(), QStringLiteral("Press Ctrl+Alt+K"));
        f.preferences.setKeyboardShortcut(GlobalShortcut::defaultShortcut());
        f.model.setStage(OnboardingStage::practice);
        f.state.setPhase(DictoraPhase::recording());
        f.state.setPhase(DictoraPhase::idle());
        f.preferences.setKeyboardShortcut(ctrlAltK);
        QCOMPARE(view.currentScreen()->headline(), QStringLiteral("PRESS Ctrl+Alt+K TO TRY AGAIN."));
    }

    void leavingSearchMidwayLeavesHistorySearchAlone()
    {
        Fixture f;
        TranscriptRecord record = test::recordSavedAt(QDateTime::currentDateTime(), QStringLiteral("Extraordinarily long first word"));
        record.outcome = TranscriptOutcome::practice;
        f.journal.append(record);
        f.model.completePractice(record.transcript, record.savedAt);
        f.history.setQuery(QStringLiteral("weekend"));
        OnboardingView view(f.model, f.state, f.preferences, f.journal, f.actions());
        view.show();
        f.model.setStage(OnboardingStage::searchProof);
        auto *field = view.currentScreen()->findChild<QLineEdit *>(QStringLiteral("searchField"));
        QTRY_VERIFY(!field->text().isEmpty());
        QVERIFY(!view.isSearchAnimationFinished());
        f.model.setStage(OnboardingStage::ready);
        QCOMPARE(f.history.query(), QStringLiteral("weekend"));
    }

    void walkFromFirstStartToFinish()
    {
        Fixture f;
        OnboardingView view(f.model, f.state, f.preferences, f.journal, f.actions());
        view.resize(640, 760);
        view.show();

        // Permissions arrive as the controller polls them.
        QCOMPARE(view.shownStage(), OnboardingStage::permissions);
        f.model.setPermissions({S::authorized, S::authorized});
        f.model.showPracticeWhenReady();

        // Placement writes the overlay preferences at once.
        QCOMPARE(view.shownStage(), OnboardingStage::microphonePosition);
        QTest::mouseClick(view.currentScreen()->findChild<QToolButton *>(QStringLiteral("spot-topRight")), Qt::LeftButton);
        QCOMPARE(f.preferences.microphoneLocation(), ScreenAnchor::topRight);
        QTest::mouseClick(view.currentScreen()->findChild<QPushButton *>(QStringLiteral("size-large")), Qt::LeftButton);
        QCOMPARE(f.preferences.microphoneSize(), OverlaySize::large);
        view.currentScreen()->findChild<QSlider *>(QStringLiteral("opacity"))->setValue(50);
        QCOMPARE(f.preferences.microphoneOpacity(), 0.5);
        QTRY_COMPARE(f.settings.value(QString::fromLatin1(ProductPreferences::kLocationKey)).toString(),
                     rawValue(ScreenAnchor::topRight)); // written on the preferences' own thread
        saveShot(view, QStringLiteral("2-microphonePosition"));
        QTest::mouseClick(button(view, QStringLiteral("next")), Qt::LeftButton);

        QCOMPARE(view.shownStage(), OnboardingStage::snippets);
        f.preferences.setSnippetsEnabled(false);
        QTest::mouseClick(button(view, QStringLiteral("useSnippets")), Qt::LeftButton);
        QVERIFY(f.preferences.snippetsEnabled());
        saveShot(view, QStringLiteral("3-snippets"));
        QTest::mouseClick(button(view, QStringLiteral("next")), Qt::LeftButton);

        // The model is not ready yet: the walk waits on the permission screen
        // (the table above), then practises.
        QCOMPARE(view.shownStage(), OnboardingStage::permissions);
        f.model.setAccuracyModelReady(true);
        f.model.showPracticeWhenReady();
        QCOMPARE(view.shownStage(), OnboardingStage::practice);
        f.state.setPhase(DictoraPhase::recording());
        f.state.setPhase(DictoraPhase::finalizing());

        // Earlier History holds other words, one of which shares the first word.
        const QDateTime earlier = QDateTime::currentDateTime().addDays(-2);
        f.journal.append(test::recordSavedAt(earlier, QStringLiteral("Groceries for the weekend")));
        f.journal.append(test::recordSavedAt(earlier, QStringLiteral("Testing the old microphone")));
        TranscriptRecord practice = test::recordSavedAt(QDateTime::currentDateTime(), QStringLiteral("Testing my first dictation."));
        practice.outcome = TranscriptOutcome::practice;
        f.journal.append(practice);
        f.state.setPhase(DictoraPhase::idle());
        f.model.completePractice(QStringLiteral(" \n\t "), practice.savedAt); // nothing heard: practise again
        QCOMPARE(view.shownStage(), OnboardingStage::practice);
        f.model.completePractice(QStringLiteral("  Testing my first dictation.\n"), practice.savedAt);

        QCOMPARE(view.shownStage(), OnboardingStage::savedProof);
        QCOMPARE(view.currentScreen()->findChild<QLabel *>(QStringLiteral("savedTranscript"))->text(),
                 QStringLiteral("Testing my first dictation."));
        QVERIFY(!view.currentScreen()->findChild<QLabel *>(QStringLiteral("savedTime"))->text().isEmpty());
        saveShot(view, QStringLiteral("5-savedProof"));
        QCOMPARE(button(view, QStringLiteral("next"))->text(), QStringLiteral("SHOW ME SEARCH"));
        f.history.setQuery(QStringLiteral("weekend"));
        QTest::mouseClick(button(view, QStringLiteral("next")), Qt::LeftButton);

        // The animation types the first word and lands on the practice record.
        QCOMPARE(view.shownStage(), OnboardingStage::searchProof);
        QSignalSpy finished(&view, &OnboardingView::searchAnimationFinished);
        QVERIFY(!button(view, QStringLiteral("next"))->isEnabled());
        QVERIFY(finished.wait(20000));
        QCOMPARE(view.currentScreen()->findChild<QLineEdit *>(QStringLiteral("searchField"))->text(),
                 QStringLiteral("Testing"));
        auto *results = view.currentScreen()->findChild<QListWidget *>(QStringLiteral("searchResults"));
        QCOMPARE(results->count(), 2);
        QVERIFY(results->currentItem());
        QVERIFY(results->currentItem()->text().startsWith(QStringLiteral("Testing my first dictation.")));
        QVERIFY(results->currentItem()->data(Qt::UserRole).toBool());
        // History's own search is left as the user had it.
        QCOMPARE(f.history.query(), QStringLiteral("weekend"));
        saveShot(view, QStringLiteral("6-searchProof"));
        QTest::mouseClick(button(view, QStringLiteral("next")), Qt::LeftButton);

        QCOMPARE(view.shownStage(), OnboardingStage::ready);
        QCOMPARE(view.currentScreen()->detail(), QStringLiteral("Press `"));
        saveShot(view, QStringLiteral("7-ready"));
        QTest::mouseClick(button(view, QStringLiteral("finish")), Qt::LeftButton);
        QVERIFY(!f.model.isPresented());
        QVERIFY(f.preferences.hasCompletedOnboarding());
        QCOMPARE(f.calls, (QStringList{QStringLiteral("openSnippets"), QStringLiteral("finish")}));
    }
};

QTEST_MAIN(OnboardingViewTest)
#include "tst_onboarding_view.moc"
