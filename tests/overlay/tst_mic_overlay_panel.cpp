#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "overlay/MicIndicatorView.h"
#include "overlay/MicOverlayPanel.h"
#include "overlay/OverlayGeometry.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QCursor>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QPointer>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QWidget>
#include <QtTest>

#include <cmath>
#include <memory>

using namespace dictora;

Q_DECLARE_METATYPE(dictora::ScreenAnchor)
Q_DECLARE_METATYPE(dictora::OverlaySize)

namespace {

// Two side-by-side displays of different sizes; the second is shorter, so a
// wrong screen choice shows up in the y coordinate as well as in x.
const QRect kFirstScreen(0, 0, 1920, 1080);
const QRect kSecondScreen(1920, 0, 1280, 1024);

class PaintCounter : public QObject {
public:
    int paints = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint)
            ++paints;
        return false;
    }
};

} // namespace

class MicOverlayPanelTest : public QObject {
    Q_OBJECT

    std::unique_ptr<test::IsolatedHome> m_home;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;
    std::unique_ptr<DictoraState> m_state;
    std::unique_ptr<MicOverlayPanel> m_panel;

    QWidget *window() const { return m_panel->panel(); }

private Q_SLOTS:
    void init()
    {
        QCursor::setPos(kFirstScreen.center());
        m_home = std::make_unique<test::IsolatedHome>();
        m_settings = std::make_unique<QSettings>(QDir(m_home->path()).filePath(QStringLiteral("prefs.ini")),
            QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
        m_state = std::make_unique<DictoraState>();
        m_panel = std::make_unique<MicOverlayPanel>(*m_state, *m_preferences);
    }
    void cleanup()
    {
        m_panel.reset();
        m_state.reset();
        m_preferences.reset();
        m_settings.reset();
        m_home.reset();
    }

    void closeRequestsAreRefused()
    {
        m_panel->show();
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        QVERIFY(!window()->testAttribute(Qt::WA_QuitOnClose));
        QVERIFY(!window()->close());
        QVERIFY(window()->isVisible());
    }

    // The text so far shows beside the indicator, on the side with room,
    // only while recording; it takes neither focus nor clicks.
    void previewBubbleFollowsTheRecording_data()
    {
        QTest::addColumn<ScreenAnchor>("anchor");
        QTest::newRow("left of a right-hand indicator") << ScreenAnchor::bottomRight;
        QTest::newRow("right of a left-hand indicator") << ScreenAnchor::topLeft;
    }
    void previewBubbleFollowsTheRecording()
    {
        QFETCH(ScreenAnchor, anchor);
        m_preferences->setMicrophoneLocation(anchor);
        m_panel->show();
        QLabel *bubble = m_panel->previewBubble();
        m_state->setPhase(DictoraPhase::recording());
        m_state->setPreviewText(QStringLiteral("so far so good"));
        QVERIFY(QTest::qWaitForWindowExposed(bubble));
        QCOMPARE(bubble->text(), QStringLiteral("so far so good"));
        QVERIFY(bubble->windowFlags().testFlag(Qt::WindowDoesNotAcceptFocus));
        const QRect indicator = window()->frameGeometry();
        QVERIFY(!bubble->frameGeometry().intersects(indicator));
        QVERIFY(kFirstScreen.contains(bubble->frameGeometry()));
        QCOMPARE(bubble->frameGeometry().center().x() < indicator.center().x(), anchor == ScreenAnchor::bottomRight);
        m_state->setPhase(DictoraPhase::finalizing());
        QVERIFY(!bubble->isVisible());
    }

    void startsAtStoredPlaceAndSize()
    {
        // Values already in the store apply before anything changes.
        m_panel.reset();
        m_preferences.reset();
        m_settings->setValue(QLatin1String(ProductPreferences::kLocationKey), QStringLiteral("topRight"));
        m_settings->setValue(QLatin1String(ProductPreferences::kSizeKey), QStringLiteral("large"));
        m_settings->setValue(QLatin1String(ProductPreferences::kShowsIconKey), false);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
        m_panel = std::make_unique<MicOverlayPanel>(*m_state, *m_preferences);
        QCOMPARE(window()->size(), QSize(48, 50));
        QCOMPARE(window()->pos(), QPoint(1920 - 48 - 8, 8));
    }

    void followsSizeAndIcon_data()
    {
        QTest::addColumn<OverlaySize>("size");
        QTest::addColumn<bool>("icon");
        QTest::addColumn<QSize>("expected");
        QTest::newRow("small bare") << OverlaySize::small << false << QSize(30, 32);
        QTest::newRow("medium bare") << OverlaySize::medium << false << QSize(38, 39);
        QTest::newRow("large icon") << OverlaySize::large << true << QSize(88, 50);
    }
    void followsSizeAndIcon()
    {
        QFETCH(OverlaySize, size);
        QFETCH(bool, icon);
        QFETCH(QSize, expected);
        m_panel->show();
        m_preferences->setMicrophoneLocation(ScreenAnchor::bottomRight);
        QPointer<MicIndicatorView> view = m_panel->hostingView();

        m_preferences->setMicrophoneSize(size);
        m_preferences->setShowsMicrophoneIcon(icon);

        QCOMPARE(window()->size(), expected);
        QCOMPARE(view->geometry(), QRect(QPoint(0, 0), expected));
        // Still 8 from the bottom right corner after the resize.
        QCOMPARE(window()->geometry().right() + 1, kFirstScreen.right() + 1 - 8);
        QCOMPARE(window()->geometry().bottom() + 1, kFirstScreen.bottom() + 1 - 8);
        QVERIFY(view);
        QCOMPARE(m_panel->hostingView(), view.data());
    }

    void followsAnchorOnScreenUnderPointer_data()
    {
        QTest::addColumn<ScreenAnchor>("anchor");
        QTest::addColumn<QPoint>("pointer");
        QTest::addColumn<QPoint>("expected");
        // Medium with icon: 69 × 39.
        const QPoint first = kFirstScreen.center();
        const QPoint second = kSecondScreen.center();
        const QPoint nowhere(5000, 5000);
        QTest::newRow("bottomMiddle first") << ScreenAnchor::bottomMiddle << first << QPoint(925, 1033);
        QTest::newRow("topRight second") << ScreenAnchor::topRight << second << QPoint(3123, 8);
        QTest::newRow("bottomLeft second") << ScreenAnchor::bottomLeft << second << QPoint(1928, 977);
        QTest::newRow("pointer off every screen uses the primary")
            << ScreenAnchor::bottomRight << nowhere << QPoint(1843, 1033);
    }
    void followsAnchorOnScreenUnderPointer()
    {
        QFETCH(ScreenAnchor, anchor);
        QFETCH(QPoint, pointer);
        QFETCH(QPoint, expected);
        m_panel->show();
        QCursor::setPos(pointer);
        QCOMPARE(QCursor::pos(), pointer);
        m_preferences->setMicrophoneLocation(anchor);
        QCOMPARE(window()->pos(), expected);
    }

    void screenIsChosenAgainOnEveryChange()
    {
        m_preferences->setMicrophoneLocation(ScreenAnchor::bottomLeft);
        QCOMPARE(window()->pos(), QPoint(8, 1033));
        // Moving the pointer alone does not move the panel...
        QCursor::setPos(kSecondScreen.center());
        QCOMPARE(window()->pos(), QPoint(8, 1033));
        // ...but any preference change does, even one unrelated to the place.
        m_preferences->setMicrophoneOpacity(0.5);
        QCOMPARE(window()->pos(), QPoint(1928, 977));
        // An explicit reposition takes the anchor it is given over the stored one.
        m_panel->reposition(ScreenAnchor::topRight);
        QCOMPARE(window()->pos(), QPoint(3123, 8));
    }

    void opacityAppliesToTheWholeIndicator_data()
    {
        QTest::addColumn<double>("applied");
        QTest::newRow("half") << 0.5;
    }
    void opacityAppliesToTheWholeIndicator()
    {
        QFETCH(double, applied);
        m_preferences->setMicrophoneOpacity(1.0);
        const QImage opaque = m_panel->hostingView()->grab().toImage();
        m_preferences->setMicrophoneOpacity(applied);
        QCOMPARE(m_panel->hostingView()->indicatorOpacity(), applied);
        const QImage faded = m_panel->hostingView()->grab().toImage();

        // A pixel of the capsule between the circle and the bars.
        const QPoint probe(int(std::lround(m_panel->hostingView()->width() * 0.61)),
            int(std::lround(m_panel->hostingView()->height() * 0.15)));
        const int fullAlpha = opaque.pixelColor(probe).alpha();
        QVERIFY(fullAlpha > 200);
        QVERIFY2(std::abs(faded.pixelColor(probe).alpha() - fullAlpha * applied) <= 3,
            qPrintable(QStringLiteral("%1 vs %2").arg(faded.pixelColor(probe).alpha()).arg(fullAlpha * applied)));
        // The rounded ends leave the corners see-through.
        QCOMPARE(faded.pixelColor(0, 0).alpha(), 0);
    }

    void levelsRepaintWithoutRebuilding()
    {
        m_panel->show();
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        QPointer<MicIndicatorView> view = m_panel->hostingView();
        PaintCounter counter;
        view->installEventFilter(&counter);

        m_state->setPhase(DictoraPhase::recording());
        QTRY_VERIFY(counter.paints >= 1);
        const QImage quiet = view->grab().toImage();

        const int before = counter.paints;
        m_state->setMeterLevels(AudioMeterLevels{1, 1, 1, 1});
        QTRY_VERIFY(counter.paints > before);
        const QImage loud = view->grab().toImage();

        QVERIFY(view);
        QCOMPARE(m_panel->hostingView(), view.data());
        QCOMPARE(view->parentWidget(), window());
        QVERIFY(quiet != loud);

        // The tallest bar (fourth) is lit near the top of its box when loud only.
        const overlay::IndicatorLayout layout = overlay::indicatorLayout(true);
        const QRectF bar = overlay::barRect(layout.barBox, 3, 24);
        const double scale = overlay::overlayScale(OverlaySize::medium);
        const QPointF offset = QRectF(view->rect()).center() - layout.bounds.center() * scale;
        const QPoint probe = (QPointF(bar.center().x(), bar.top() + 2.5) * scale + offset).toPoint();
        QVERIFY2(loud.pixelColor(probe).lightness() > 200, qPrintable(QString::number(loud.pixelColor(probe).lightness())));
        QVERIFY2(quiet.pixelColor(probe).lightness() < 80, qPrintable(QString::number(quiet.pixelColor(probe).lightness())));
    }

    // Screen readers hear the phase's own label, on the view and its window alike.
    void accessibleNameFollowsPhase()
    {
        QCOMPARE(m_panel->hostingView()->accessibleName(), DictoraPhase::idle().label());
        for (const DictoraPhase &phase : {DictoraPhase::recording(), DictoraPhase::error(QStringLiteral("Allow Microphone")),
                 DictoraPhase::idle()}) {
            m_state->setPhase(phase);
            QCOMPARE(m_panel->hostingView()->accessibleName(), phase.label());
            QCOMPARE(window()->accessibleName(), phase.label());
        }
    }
};

int main(int argc, char **argv)
{
    // Two offscreen displays, so the choice of screen can be checked.
    QTemporaryDir configDir;
    const QString config = QDir(configDir.path()).filePath(QStringLiteral("screens.json"));
    const bool written = test::writeFile(config, R"({"screens": [
        {"name": "first", "x": 0, "y": 0, "width": 1920, "height": 1080, "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1},
        {"name": "second", "x": 1920, "y": 0, "width": 1280, "height": 1024, "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}
    ]})");
    if (!written)
        return 1;
    qputenv("QT_QPA_PLATFORM", QByteArray("offscreen:configfile=") + config.toUtf8());
    QApplication app(argc, argv);
    MicOverlayPanelTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_mic_overlay_panel.moc"
