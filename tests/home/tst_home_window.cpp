// The main window (header, model banner, sizes, reloads, sheet buttons) and
// its appearance sheet, which writes each change straight into the preferences.
#include "HomeTestSupport.h"
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "home/AppearanceSheet.h"
#include "home/HistoryListModel.h"
#include "home/HistoryView.h"
#include "home/HomeWindow.h"
#include "home/Style.h"
#include "support/TestSupport.h"

#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>

using namespace dictora;
using namespace dictora::test;

class HomeWindowTest : public QObject {
    Q_OBJECT

private:
    // The window over real preferences and a real store, in a home of its own.
    struct Parts {
        IsolatedHome home;
        QTemporaryDir dir;
        QString journalPath = dir.filePath(QStringLiteral("transcripts.jsonl"));
        QSettings settings{dir.filePath(QStringLiteral("defaults.ini")), QSettings::IniFormat};
        DictoraState state;
        ProductPreferences preferences{settings};
        HistoryStore store{TranscriptJournal(journalPath)};
        HomeWindow window{state, preferences, store};
    };
    std::unique_ptr<Parts> m_parts;
    std::unique_ptr<AppearanceSheet> m_sheet;

    void build(const QList<TranscriptRecord> &records)
    {
        m_parts = std::make_unique<Parts>();
        writeJournal(m_parts->journalPath, records);
    }

    void present()
    {
        QSignalSpy reloaded(&m_parts->store, &HistoryStore::reloaded);
        m_parts->window.present();
        QVERIFY(QTest::qWaitForWindowExposed(&m_parts->window));
        QVERIFY(reloaded.count() > 0 || reloaded.wait(10000));
    }


    // The appearance sheet over the window's preferences, shown. Start at
    // login writes into $XDG_CONFIG_HOME, so each case has a home of its own.
    void showAppearance()
    {
        build({});
        m_sheet = std::make_unique<AppearanceSheet>(m_parts->preferences);
        m_sheet->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_sheet.get()));
    }

    // What a restart would read; the preferences write on their own thread, so compare with QTRY.
    ProductPreferences reread()
    {
        m_parts->settings.sync();
        return ProductPreferences(m_parts->settings);
    }

private Q_SLOTS:
    void initTestCase() { Style::apply(*qApp, false); }

    void cleanup()
    {
        m_sheet.reset();
        m_parts.reset();
        QThreadPool::globalInstance()->waitForDone();
    }

    void sizesFollowOnboarding_data()
    {
        QTest::addColumn<bool>("onboarding");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QSize>("minimum");
        QTest::newRow("normal use") << false << QSize(960, 700) << QSize(760, 580);
        QTest::newRow("onboarding") << true << QSize(960, 900) << QSize(760, 820);
    }

    void sizesFollowOnboarding()
    {
        QFETCH(bool, onboarding);
        QFETCH(QSize, size);
        QFETCH(QSize, minimum);
        build({});
        QVERIFY(!m_parts->window.testAttribute(Qt::WA_DeleteOnClose)); // closing keeps the store and its search
        auto *placeholder = new QLabel(QStringLiteral("Welcome"));
        m_parts->window.setOnboardingView(placeholder);
        m_parts->window.setOnboardingPresented(onboarding);
        present();
        QCOMPARE(m_parts->window.size(), size);
        QCOMPARE(m_parts->window.minimumSize(), minimum);
        QCOMPARE(placeholder->isVisible(), onboarding);
        QCOMPARE(m_parts->window.historyView()->isVisible(), !onboarding);
        // And back: the flag change re-applies both sizes (the size animates).
        m_parts->window.setOnboardingPresented(!onboarding);
        QTRY_COMPARE(m_parts->window.size(), HomeWindow::contentSize(!onboarding));
        QCOMPARE(m_parts->window.minimumSize(), HomeWindow::minimumContentSize(!onboarding));
    }

    void headerFollowsShortcutAndPhase()
    {
        build({});
        auto *phaseLabel = m_parts->window.findChild<QLabel *>(QStringLiteral("phaseLabel"));
        auto *shortcutLabel = m_parts->window.findChild<QLabel *>(QStringLiteral("shortcutLabel"));
        QVERIFY(shortcutLabel->text().endsWith(GlobalShortcut::defaultShortcut().displayText()));
        const GlobalShortcut ctrlAltK = GlobalShortcut::loadOrDefault(R"({"keyCode":45,"modifiers":6,"keyLabel":"K"})");
        for (const DictoraPhase &phase : {DictoraPhase::recording(), DictoraPhase::error(QStringLiteral("No microphone."))}) {
            m_parts->state.setPhase(phase);
            QCOMPARE(phaseLabel->text(), phase.label());
        }
        m_parts->preferences.setKeyboardShortcut(ctrlAltK);
        QVERIFY2(shortcutLabel->text().endsWith(ctrlAltK.displayText()), qPrintable(shortcutLabel->text()));
    }

    // One banner through a preparation's states, each replacing the last.
    void modelBanner()
    {
        build({});
        present();
        auto *banner = m_parts->window.findChild<QFrame *>(QStringLiteral("modelBanner"));
        auto *text = m_parts->window.findChild<QLabel *>(QStringLiteral("bannerText"));
        auto *percent = m_parts->window.findChild<QLabel *>(QStringLiteral("bannerPercent"));
        auto *bar = m_parts->window.findChild<QProgressBar *>(QStringLiteral("bannerProgress"));
        auto *retry = m_parts->window.findChild<QPushButton *>(QStringLiteral("retryDownload"));
        QSignalSpy retried(&m_parts->window, &HomeWindow::retryDownloadRequested);

        m_parts->window.setModelPreparation(QStringLiteral("The download stopped."), 0.5, true);
        QVERIFY(banner->isVisible() && retry->isVisible());
        QCOMPARE(percent->text(), QStringLiteral("50%"));
        retry->click();
        QCOMPARE(retried.count(), 1);
        m_parts->window.setModelPreparation(QStringLiteral("Checking the speech model…"), std::nullopt, false);
        QCOMPARE(text->text(), QStringLiteral("Checking the speech model…"));
        QVERIFY(!percent->isVisible() && !bar->isVisible() && !retry->isVisible());
        m_parts->window.setModelPreparation(QStringLiteral("Downloading"), 0.427, false);
        QVERIFY(percent->isVisible() && bar->isVisible());
        QCOMPARE(percent->text(), QStringLiteral("42%"));
        m_parts->window.setModelPreparation(QStringLiteral("Downloading"), 1.7, false);
        QCOMPARE(percent->text(), QStringLiteral("100%")); // an overshoot is clamped
        m_parts->window.setModelPreparation(QString(), std::nullopt, false); // ready
        QVERIFY(!banner->isVisible());
    }

    void reloadsOnShowAndWhileVisible()
    {
        QList<TranscriptRecord> records;
        for (int i = 0; i < 4; ++i)
            records << homeRecord(QDateTime::currentDateTime().addSecs(-3600 * i), QStringLiteral("oat milk, take %1").arg(i));
        build(records.mid(0, 2));
        // Hidden: a saved dictation does not read the journal.
        QSignalSpy reloaded(&m_parts->store, &HistoryStore::reloaded);
        m_parts->window.refreshIfVisible();
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::processEvents();
        QCOMPARE(reloaded.count(), 0);

        present();
        QCOMPARE(m_parts->window.historyView()->model()->rowCount(), 2);
        TranscriptJournal(m_parts->journalPath).append(records[2]);
        m_parts->window.refreshIfVisible();
        QVERIFY(reloaded.wait(10000));
        QCOMPARE(m_parts->window.historyView()->model()->rowCount(), 3);

        // Closing keeps the store and its search; showing again reloads.
        QTest::keyClicks(m_parts->window.historyView()->searchField(), QStringLiteral("oat"));
        m_parts->window.close();
        QVERIFY(!m_parts->window.isVisible());
        TranscriptJournal(m_parts->journalPath).append(records[3]);
        present();
        QCOMPARE(m_parts->store.records().size(), 4);
        QCOMPARE(m_parts->window.historyView()->searchField()->text(), QStringLiteral("oat"));
    }

    void sheetButtons()
    {
        build({});
        present();
        QSignalSpy shortcut(&m_parts->window, &HomeWindow::shortcutSheetRequested);
        QSignalSpy snippets(&m_parts->window, &HomeWindow::snippetsSheetRequested);
        m_parts->window.findChild<QPushButton *>(QStringLiteral("shortcutButton"))->click();
        m_parts->window.findChild<QPushButton *>(QStringLiteral("snippetsButton"))->click();
        QCOMPARE(shortcut.count(), 1);
        QCOMPARE(snippets.count(), 1);
        m_parts->window.findChild<QPushButton *>(QStringLiteral("appearanceButton"))->click();
        QVERIFY(m_parts->window.appearanceSheet());
        QVERIFY(QTest::qWaitForWindowExposed(m_parts->window.appearanceSheet()));
        // Writes go to the same preferences the indicator observes.
        m_parts->window.appearanceSheet()->sizeButton(OverlaySize::large)->click();
        QCOMPARE(m_parts->preferences.microphoneSize(), OverlaySize::large);
    }

    // A click on a spot (key 0) or an arrow key moves the indicator there.
    void pickerMovesTheIndicator_data()
    {
        QTest::addColumn<ScreenAnchor>("from");
        QTest::addColumn<int>("key");
        QTest::addColumn<ScreenAnchor>("to");
        for (ScreenAnchor a : allScreenAnchors()) // from elsewhere, so every row is a real change
            QTest::newRow(qPrintable(rawValue(a))) << (a == ScreenAnchor::topLeft ? ScreenAnchor::bottomRight : ScreenAnchor::topLeft) << 0 << a;
        QTest::newRow("left") << ScreenAnchor::bottomMiddle << int(Qt::Key_Left) << ScreenAnchor::bottomLeft;
        QTest::newRow("left stops at the edge") << ScreenAnchor::bottomLeft << int(Qt::Key_Left) << ScreenAnchor::bottomLeft;
        QTest::newRow("right") << ScreenAnchor::topMiddle << int(Qt::Key_Right) << ScreenAnchor::topRight;
        QTest::newRow("up") << ScreenAnchor::bottomRight << int(Qt::Key_Up) << ScreenAnchor::topRight;
        QTest::newRow("down") << ScreenAnchor::topLeft << int(Qt::Key_Down) << ScreenAnchor::bottomLeft;
    }

    void pickerMovesTheIndicator()
    {
        showAppearance();
        QFETCH(ScreenAnchor, from);
        QFETCH(int, key);
        QFETCH(ScreenAnchor, to);
        m_parts->preferences.setMicrophoneLocation(from);
        ScreenAnchorPicker *picker = m_sheet->anchorPicker();
        QCOMPARE(picker->anchor(), from);
        if (key)
            QTest::keyClick(picker, Qt::Key(key));
        else
            QTest::mouseClick(picker, Qt::LeftButton, {}, picker->spotRect(to).center().toPoint());
        QCOMPARE(m_parts->preferences.microphoneLocation(), to);
        QCOMPARE(picker->anchor(), to);
        QTRY_COMPARE(reread().microphoneLocation(), to);
    }

    void sizeButtonsSetTheSize_data()
    {
        QTest::addColumn<OverlaySize>("size");
        for (OverlaySize s : allOverlaySizes())
            QTest::newRow(qPrintable(rawValue(s))) << s;
    }

    void sizeButtonsSetTheSize()
    {
        showAppearance();
        QFETCH(OverlaySize, size);
        m_parts->preferences.setMicrophoneSize(size == OverlaySize::small ? OverlaySize::large : OverlaySize::small);
        m_sheet->sizeButton(size)->click();
        QCOMPARE(m_parts->preferences.microphoneSize(), size);
        QTRY_COMPARE(reread().microphoneSize(), size);
        for (OverlaySize other : allOverlaySizes())
            QCOMPARE(m_sheet->sizeButton(other)->isChecked(), other == size);
    }

    void opacitySliderStaysInRange_data()
    {
        QTest::addColumn<double>("start");
        QTest::addColumn<int>("key");
        QTest::addColumn<double>("expected");
        QTest::addColumn<QString>("label");
        QTest::newRow("home is the minimum") << 0.9 << int(Qt::Key_Home) << 0.2 << "20%";
        QTest::newRow("end is fully opaque") << 0.5 << int(Qt::Key_End) << 1.0 << "100%";
        QTest::newRow("one step down") << 0.9 << int(Qt::Key_Left) << 0.85 << "85%";
        QTest::newRow("no lower than the minimum") << 0.2 << int(Qt::Key_Left) << 0.2 << "20%";
        QTest::newRow("page up") << 0.4 << int(Qt::Key_PageUp) << 0.5 << "50%";
    }

    void opacitySliderStaysInRange()
    {
        showAppearance();
        QFETCH(double, start);
        QFETCH(int, key);
        QFETCH(double, expected);
        QFETCH(QString, label);
        m_parts->preferences.setMicrophoneOpacity(start);
        QCOMPARE(m_sheet->opacitySlider()->value(), qRound(start * 100));
        QTest::keyClick(m_sheet->opacitySlider(), Qt::Key(key));
        QVERIFY(qFuzzyCompare(m_parts->preferences.microphoneOpacity(), expected));
        QTRY_VERIFY(qFuzzyCompare(reread().microphoneOpacity(), expected));
        QCOMPARE(m_sheet->findChild<QLabel *>(QStringLiteral("opacityValue"))->text(), label);
    }

    void iconSwitchTogglesTheIcon()
    {
        showAppearance();
        QVERIFY(m_parts->preferences.showsMicrophoneIcon());
        QVERIFY(m_sheet->iconSwitch()->isChecked());
        QSignalSpy changed(&m_parts->preferences, &ProductPreferences::showsMicrophoneIconChanged);
        QTest::mouseClick(m_sheet->iconSwitch(), Qt::LeftButton);
        QCOMPARE(changed.count(), 1);
        QVERIFY(!m_parts->preferences.showsMicrophoneIcon());
        QTRY_VERIFY(!reread().showsMicrophoneIcon());
        // A change made elsewhere (the onboarding, a second sheet) shows here.
        m_parts->preferences.setShowsMicrophoneIcon(true);
        QVERIFY(m_sheet->iconSwitch()->isChecked());
    }

    void startAtLoginSwitch_data()
    {
        QTest::addColumn<QByteArray>("existing");
        QTest::addColumn<bool>("blocked");
        QTest::addColumn<bool>("onWhenOpened");
        QTest::addColumn<bool>("onAfterClick");
        QTest::newRow("off, click writes the entry") << QByteArray() << false << false << true;
        QTest::newRow("entry written by hand, click removes it")
            << QByteArray("[Desktop Entry]\nType=Application\nExec=dictora\n") << false << true << false;
        QTest::newRow("folder cannot be created") << QByteArray() << true << false << false;
    }

    void startAtLoginSwitch()
    {
        showAppearance();
        QFETCH(QByteArray, existing);
        QFETCH(bool, blocked);
        QFETCH(bool, onWhenOpened);
        QFETCH(bool, onAfterClick);
        const QString folder = m_parts->home.path() + QStringLiteral("/config/autostart");
        const QString entry = folder + QStringLiteral("/dictora.desktop");
        if (!existing.isEmpty())
            QVERIFY(test::writeFile(entry, existing));
        if (blocked)
            QVERIFY(test::writeFile(folder, "in the way\n"));
        // Opening again reads what is on disk now.
        m_sheet->hide();
        m_sheet->show();
        QCOMPARE(m_sheet->startAtLoginSwitch()->isChecked(), onWhenOpened);
        QCOMPARE(m_parts->preferences.startsAtLogin(), onWhenOpened);

        QTest::mouseClick(m_sheet->startAtLoginSwitch(), Qt::LeftButton);
        QCOMPARE(m_sheet->startAtLoginSwitch()->isChecked(), onAfterClick);
        QTRY_COMPARE(reread().startsAtLogin(), onAfterClick);
        QCOMPARE(QFileInfo(entry).isFile(), onAfterClick);
        QLabel *failure = m_sheet->startAtLoginFailure();
        QCOMPARE(failure->isVisible(), blocked);
        if (blocked)
            QVERIFY2(failure->text().contains(folder), qPrintable(failure->text()));
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    HomeWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_home_window.moc"
