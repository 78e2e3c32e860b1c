// The appearance sheet writes each change straight into the preferences.
#include "core/ProductPreferences.h"
#include "home/AppearanceSheet.h"
#include "home/Style.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QLabel>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

class AppearanceSheetTest : public QObject {
    Q_OBJECT

private:
    // Start at login writes into $XDG_CONFIG_HOME, so each case gets its own.
    std::unique_ptr<test::IsolatedHome> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;
    std::unique_ptr<AppearanceSheet> m_sheet;

    // The preferences as a fresh start would read them back.
    // What a restart would read; the sheet's preferences write on their own thread, so compare with QTRY.
    ProductPreferences reread() { m_settings->sync(); return ProductPreferences(*m_settings); }

private Q_SLOTS:
    void initTestCase() { Style::apply(*qApp, false); }

    void init()
    {
        m_home = std::make_unique<test::IsolatedHome>();
        m_dir = std::make_unique<QTemporaryDir>();
        m_settings = std::make_unique<QSettings>(m_dir->filePath(QStringLiteral("defaults.ini")), QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
        m_sheet = std::make_unique<AppearanceSheet>(*m_preferences);
        m_sheet->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_sheet.get()));
    }

    void cleanup()
    {
        m_sheet.reset();
        m_preferences.reset();
        m_settings.reset();
        m_home.reset();
    }

    void clickingASpotMovesTheIndicator_data()
    {
        QTest::addColumn<ScreenAnchor>("anchor");
        for (ScreenAnchor a : allScreenAnchors())
            QTest::newRow(qPrintable(rawValue(a))) << a;
    }

    void clickingASpotMovesTheIndicator()
    {
        QFETCH(ScreenAnchor, anchor);
        // Start elsewhere, so every row is a real change.
        m_preferences->setMicrophoneLocation(anchor == ScreenAnchor::topLeft ? ScreenAnchor::bottomRight : ScreenAnchor::topLeft);
        ScreenAnchorPicker *picker = m_sheet->anchorPicker();
        QTest::mouseClick(picker, Qt::LeftButton, {}, picker->spotRect(anchor).center().toPoint());
        QCOMPARE(m_preferences->microphoneLocation(), anchor);
        QCOMPARE(picker->anchor(), anchor);
        QTRY_COMPARE(reread().microphoneLocation(), anchor);
    }

    void arrowKeysWalkTheSpots_data()
    {
        QTest::addColumn<ScreenAnchor>("from");
        QTest::addColumn<int>("key");
        QTest::addColumn<ScreenAnchor>("to");
        QTest::newRow("left") << ScreenAnchor::bottomMiddle << int(Qt::Key_Left) << ScreenAnchor::bottomLeft;
        QTest::newRow("left stops at the edge") << ScreenAnchor::bottomLeft << int(Qt::Key_Left) << ScreenAnchor::bottomLeft;
        QTest::newRow("right") << ScreenAnchor::topMiddle << int(Qt::Key_Right) << ScreenAnchor::topRight;
        QTest::newRow("up") << ScreenAnchor::bottomRight << int(Qt::Key_Up) << ScreenAnchor::topRight;
        QTest::newRow("down") << ScreenAnchor::topLeft << int(Qt::Key_Down) << ScreenAnchor::bottomLeft;
    }

    void arrowKeysWalkTheSpots()
    {
        QFETCH(ScreenAnchor, from);
        QFETCH(int, key);
        QFETCH(ScreenAnchor, to);
        m_preferences->setMicrophoneLocation(from);
        QCOMPARE(m_sheet->anchorPicker()->anchor(), from);
        QTest::keyClick(m_sheet->anchorPicker(), Qt::Key(key));
        QCOMPARE(m_preferences->microphoneLocation(), to);
    }

    void sizeButtonsSetTheSize_data()
    {
        QTest::addColumn<OverlaySize>("size");
        for (OverlaySize s : allOverlaySizes())
            QTest::newRow(qPrintable(rawValue(s))) << s;
    }

    void sizeButtonsSetTheSize()
    {
        QFETCH(OverlaySize, size);
        m_preferences->setMicrophoneSize(size == OverlaySize::small ? OverlaySize::large : OverlaySize::small);
        m_sheet->sizeButton(size)->click();
        QCOMPARE(m_preferences->microphoneSize(), size);
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
        QFETCH(double, start);
        QFETCH(int, key);
        QFETCH(double, expected);
        QFETCH(QString, label);
        m_preferences->setMicrophoneOpacity(start);
        QCOMPARE(m_sheet->opacitySlider()->value(), qRound(start * 100));
        QTest::keyClick(m_sheet->opacitySlider(), Qt::Key(key));
        QVERIFY(qFuzzyCompare(m_preferences->microphoneOpacity(), expected));
        QTRY_VERIFY(qFuzzyCompare(reread().microphoneOpacity(), expected));
        QCOMPARE(m_sheet->findChild<QLabel *>(QStringLiteral("opacityValue"))->text(), label);
    }

    void iconSwitchTogglesTheIcon()
    {
        QVERIFY(m_preferences->showsMicrophoneIcon());
        QVERIFY(m_sheet->iconSwitch()->isChecked());
        QSignalSpy changed(m_preferences.get(), &ProductPreferences::showsMicrophoneIconChanged);
        QTest::mouseClick(m_sheet->iconSwitch(), Qt::LeftButton);
        QCOMPARE(changed.count(), 1);
        QVERIFY(!m_preferences->showsMicrophoneIcon());
        QTRY_VERIFY(!reread().showsMicrophoneIcon());
        // A change made elsewhere (the onboarding, a second sheet) shows here.
        m_preferences->setShowsMicrophoneIcon(true);
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
        QFETCH(QByteArray, existing);
        QFETCH(bool, blocked);
        QFETCH(bool, onWhenOpened);
        QFETCH(bool, onAfterClick);
        const QString folder = m_home->path() + QStringLiteral("/config/autostart");
        const QString entry = folder + QStringLiteral("/dictora.desktop");
        if (!existing.isEmpty())
            QVERIFY(test::writeFile(entry, existing));
        if (blocked)
            QVERIFY(test::writeFile(folder, "in the way\n"));
        // Opening again reads what is on disk now.
        m_sheet->hide();
        m_sheet->show();
        QCOMPARE(m_sheet->startAtLoginSwitch()->isChecked(), onWhenOpened);
        QCOMPARE(m_preferences->startsAtLogin(), onWhenOpened);

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

QTEST_MAIN(AppearanceSheetTest)
#include "tst_appearance_sheet.moc"
