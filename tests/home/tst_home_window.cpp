// The main window: header, model banner, sizes, reloads and sheet buttons.
#include "HomeTestSupport.h"
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "home/AppearanceSheet.h"
#include "home/HistoryListModel.h"
#include "home/HistoryView.h"
#include "home/HomeWindow.h"
#include "home/Style.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>

using namespace dictora;
using namespace dictora::test;

class HomeWindowTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<IsolatedHome> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_journalPath;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<DictoraState> m_state;
    std::unique_ptr<ProductPreferences> m_preferences;
    std::unique_ptr<HistoryStore> m_store;
    std::unique_ptr<HomeWindow> m_window;

    void build(const QList<TranscriptRecord> &records)
    {
        writeJournal(m_journalPath, records);
        m_store = std::make_unique<HistoryStore>(TranscriptJournal(m_journalPath));
        m_window = std::make_unique<HomeWindow>(*m_state, *m_preferences, *m_store);
    }

    void present()
    {
        QSignalSpy reloaded(m_store.get(), &HistoryStore::reloaded);
        m_window->present();
        QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
        QVERIFY(reloaded.count() > 0 || reloaded.wait(10000));
    }


private Q_SLOTS:
    void init()
    {
        Style::apply(*qApp, false);
        m_home = std::make_unique<IsolatedHome>();
        m_dir = std::make_unique<QTemporaryDir>();
        m_journalPath = m_dir->filePath(QStringLiteral("transcripts.jsonl"));
        m_settings = std::make_unique<QSettings>(m_dir->filePath(QStringLiteral("defaults.ini")), QSettings::IniFormat);
        m_state = std::make_unique<DictoraState>();
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
    }

    void cleanup()
    {
        m_window.reset();
        m_store.reset();
        QThreadPool::globalInstance()->waitForDone();
        m_preferences.reset();
        m_state.reset();
        m_settings.reset();
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
        QVERIFY(!m_window->testAttribute(Qt::WA_DeleteOnClose)); // closing keeps the store and its search
        auto *placeholder = new QLabel(QStringLiteral("Welcome"));
        m_window->setOnboardingView(placeholder);
        m_window->setOnboardingPresented(onboarding);
        present();
        QCOMPARE(m_window->size(), size);
        QCOMPARE(m_window->minimumSize(), minimum);
        QCOMPARE(placeholder->isVisible(), onboarding);
        QCOMPARE(m_window->historyView()->isVisible(), !onboarding);
        // And back: the flag change re-applies both sizes (the size animates).
        m_window->setOnboardingPresented(!onboarding);
        QTRY_COMPARE(m_window->size(), HomeWindow::contentSize(!onboarding));
        QCOMPARE(m_window->minimumSize(), HomeWindow::minimumContentSize(!onboarding));
    }

    void headerFollowsShortcutAndPhase()
    {
        build({});
        auto *phaseLabel = m_window->findChild<QLabel *>(QStringLiteral("phaseLabel"));
        auto *shortcutLabel = m_window->findChild<QLabel *>(QStringLiteral("shortcutLabel"));
        QVERIFY(shortcutLabel->text().endsWith(GlobalShortcut::defaultShortcut().displayText()));
        const GlobalShortcut ctrlAltK = GlobalShortcut::loadOrDefault(R"({"keyCode":45,"modifiers":6,"keyLabel":"K"})");
        for (const DictoraPhase &phase : {DictoraPhase::recording(), DictoraPhase::error(QStringLiteral("No microphone."))}) {
            m_state->setPhase(phase);
            QCOMPARE(phaseLabel->text(), phase.label());
        }
        m_preferences->setKeyboardShortcut(ctrlAltK);
        QVERIFY2(shortcutLabel->text().endsWith(ctrlAltK.displayText()), qPrintable(shortcutLabel->text()));
    }

    // One banner through a preparation's states, each replacing the last.
    void modelBanner()
    {
        build({});
        present();
        auto *banner = m_window->findChild<QFrame *>(QStringLiteral("modelBanner"));
        auto *text = m_window->findChild<QLabel *>(QStringLiteral("bannerText"));
        auto *percent = m_window->findChild<QLabel *>(QStringLiteral("bannerPercent"));
        auto *bar = m_window->findChild<QProgressBar *>(QStringLiteral("bannerProgress"));
        auto *retry = m_window->findChild<QPushButton *>(QStringLiteral("retryDownload"));
        QSignalSpy retried(m_window.get(), &HomeWindow::retryDownloadRequested);

        m_window->setModelPreparation(QStringLiteral("The download stopped."), 0.5, true);
        QVERIFY(banner->isVisible() && retry->isVisible());
        QCOMPARE(percent->text(), QStringLiteral("50%"));
        retry->click();
        QCOMPARE(retried.count(), 1);
        m_window->setModelPreparation(QStringLiteral("Checking the speech model…"), std::nullopt, false);
        QCOMPARE(text->text(), QStringLiteral("Checking the speech model…"));
        QVERIFY(!percent->isVisible() && !bar->isVisible() && !retry->isVisible());
        m_window->setModelPreparation(QStringLiteral("Downloading"), 0.427, false);
        QVERIFY(percent->isVisible() && bar->isVisible());
        QCOMPARE(percent->text(), QStringLiteral("42%"));
        m_window->setModelPreparation(QStringLiteral("Downloading"), 1.7, false);
        QCOMPARE(percent->text(), QStringLiteral("100%")); // an overshoot is clamped
        m_window->setModelPreparation(QString(), std::nullopt, false); // ready
        QVERIFY(!banner->isVisible());
    }

    void reloadsOnShowAndWhileVisible()
    {
        QList<TranscriptRecord> records;
        for (int i = 0; i < 4; ++i)
            records << homeRecord(QDateTime::currentDateTime().addSecs(-3600 * i), QStringLiteral("oat milk, take %1").arg(i));
        build(records.mid(0, 2));
        // Hidden: a saved dictation does not read the journal.
        QSignalSpy reloaded(m_store.get(), &HistoryStore::reloaded);
        m_window->refreshIfVisible();
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::processEvents();
        QCOMPARE(reloaded.count(), 0);

        present();
        QCOMPARE(m_window->historyView()->model()->rowCount(), 2);
        TranscriptJournal(m_journalPath).append(records[2]);
        m_window->refreshIfVisible();
        QVERIFY(reloaded.wait(10000));
        QCOMPARE(m_window->historyView()->model()->rowCount(), 3);

        // Closing keeps the store and its search; showing again reloads.
        QTest::keyClicks(m_window->historyView()->searchField(), QStringLiteral("oat"));
        m_window->close();
        QVERIFY(!m_window->isVisible());
        TranscriptJournal(m_journalPath).append(records[3]);
        present();
        QCOMPARE(m_store->records().size(), 4);
        QCOMPARE(m_window->historyView()->searchField()->text(), QStringLiteral("oat"));
    }

    void sheetButtons()
    {
        build({});
        present();
        QSignalSpy shortcut(m_window.get(), &HomeWindow::shortcutSheetRequested);
        QSignalSpy snippets(m_window.get(), &HomeWindow::snippetsSheetRequested);
        m_window->findChild<QPushButton *>(QStringLiteral("shortcutButton"))->click();
        m_window->findChild<QPushButton *>(QStringLiteral("snippetsButton"))->click();
        QCOMPARE(shortcut.count(), 1);
        QCOMPARE(snippets.count(), 1);
        m_window->findChild<QPushButton *>(QStringLiteral("appearanceButton"))->click();
        QVERIFY(m_window->appearanceSheet());
        QVERIFY(QTest::qWaitForWindowExposed(m_window->appearanceSheet()));
        // Writes go to the same preferences the indicator observes.
        m_window->appearanceSheet()->sizeButton(OverlaySize::large)->click();
        QCOMPARE(m_preferences->microphoneSize(), OverlaySize::large);
    }

};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    HomeWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_home_window.moc"
