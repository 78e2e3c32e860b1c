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
using namespace dictora::overlay;

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

// A panel on its own preferences file.
struct PanelRig {
    test::IsolatedHome home;
    QSettings settings{QDir(home.path()).filePath(QStringLiteral("prefs.ini")), QSettings::IniFormat};
    ProductPreferences preferences{settings};
    DictoraState state;
    MicOverlayPanel panel{state, preferences};
};

} // namespace

class MicOverlayPanelTest : public QObject {
    Q_OBJECT

    std::unique_ptr<PanelRig> m_rig;

    QWidget *window() const { return m_rig->panel.panel(); }

private Q_SLOTS:
    void init()
    {
        QCursor::setPos(kFirstScreen.center());
        m_rig = std::make_unique<PanelRig>();
    }
    void cleanup() { m_rig.reset(); }

    void closeRequestsAreRefused()
    {
        m_rig->panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        QVERIFY(!window()->testAttribute(Qt::WA_QuitOnClose));
        QVERIFY(!window()->close());
        QVERIFY(window()->isVisible());
    }

    // The text so far shows beside the indicator, on the side with room, only while recording; no focus.
    void previewBubbleFollowsTheRecording_data()
    {
        QTest::addColumn<ScreenAnchor>("anchor");
        QTest::newRow("left of a right-hand indicator") << ScreenAnchor::bottomRight;
        QTest::newRow("right of a left-hand indicator") << ScreenAnchor::topLeft;
    }
    void previewBubbleFollowsTheRecording()
    {
        QFETCH(ScreenAnchor, anchor);
        m_rig->preferences.setMicrophoneLocation(anchor);
        m_rig->panel.show();
        QLabel *bubble = m_rig->panel.previewBubble();
        m_rig->state.setPhase(DictoraPhase::recording());
        m_rig->state.setPreviewText(QStringLiteral("so far so good"));
        QVERIFY(QTest::qWaitForWindowExposed(bubble));
        QCOMPARE(bubble->text(), QStringLiteral("so far so good"));
        QVERIFY(bubble->windowFlags().testFlag(Qt::WindowDoesNotAcceptFocus));
        const QRect indicator = window()->frameGeometry();
        QVERIFY(!bubble->frameGeometry().intersects(indicator));
        QVERIFY(kFirstScreen.contains(bubble->frameGeometry()));
        QCOMPARE(bubble->frameGeometry().center().x() < indicator.center().x(), anchor == ScreenAnchor::bottomRight);
        m_rig->state.setPhase(DictoraPhase::finalizing());
        QVERIFY(!bubble->isVisible());
    }

    // Values already in the store apply before anything changes.
    void startsAtStoredPlaceAndSize()
    {
        m_rig->settings.setValue(QLatin1String(ProductPreferences::kLocationKey), QStringLiteral("topRight"));
        m_rig->settings.setValue(QLatin1String(ProductPreferences::kSizeKey), QStringLiteral("large"));
        m_rig->settings.setValue(QLatin1String(ProductPreferences::kShowsIconKey), false);
        ProductPreferences preferences(m_rig->settings);
        MicOverlayPanel panel(m_rig->state, preferences);
        QCOMPARE(panel.panel()->geometry(), QRect(1920 - 48 - 8, 8, 48, 50));
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
        m_rig->panel.show();
        m_rig->preferences.setMicrophoneLocation(ScreenAnchor::bottomRight);
        QPointer<MicIndicatorView> view = m_rig->panel.hostingView();

        m_rig->preferences.setMicrophoneSize(size);
        m_rig->preferences.setShowsMicrophoneIcon(icon);

        QCOMPARE(window()->size(), expected);
        QCOMPARE(view->geometry(), QRect(QPoint(0, 0), expected));
        // Still 8 from the bottom right corner after the resize.
        QCOMPARE(window()->geometry().right() + 1, kFirstScreen.right() + 1 - 8);
        QCOMPARE(window()->geometry().bottom() + 1, kFirstScreen.bottom() + 1 - 8);
        QVERIFY(view);
        QCOMPARE(m_rig->panel.hostingView(), view.data());
    }

    // The screen under the pointer (medium with icon: 69 × 39), chosen again
    // on every preference change but not when the pointer alone moves.
    void screenIsChosenAgainOnEveryChange()
    {
        m_rig->panel.show();
        m_rig->preferences.setMicrophoneLocation(ScreenAnchor::bottomMiddle);
        QCOMPARE(window()->pos(), QPoint(925, 1033));
        QCursor::setPos(kSecondScreen.center());
        QCOMPARE(window()->pos(), QPoint(925, 1033));
        // Any change does, even one unrelated to the place.
        m_rig->preferences.setMicrophoneOpacity(0.5);
        QCOMPARE(window()->pos(), QPoint(2525, 977));
        m_rig->preferences.setMicrophoneLocation(ScreenAnchor::bottomLeft);
        QCOMPARE(window()->pos(), QPoint(1928, 977));
        // An explicit reposition takes the anchor it is given over the stored one.
        m_rig->panel.reposition(ScreenAnchor::topRight);
        QCOMPARE(window()->pos(), QPoint(3123, 8));
        // A pointer off every screen: the primary one.
        QCursor::setPos(5000, 5000);
        m_rig->panel.reposition(ScreenAnchor::bottomRight);
        QCOMPARE(window()->pos(), QPoint(1843, 1033));
    }

    void opacityAppliesToTheWholeIndicator()
    {
        const double applied = 0.5;
        m_rig->preferences.setMicrophoneOpacity(1.0);
        const QImage opaque = m_rig->panel.hostingView()->grab().toImage();
        m_rig->preferences.setMicrophoneOpacity(applied);
        QCOMPARE(m_rig->panel.hostingView()->indicatorOpacity(), applied);
        const QImage faded = m_rig->panel.hostingView()->grab().toImage();

        // A pixel of the capsule between the circle and the bars.
        const QPoint probe(int(std::lround(m_rig->panel.hostingView()->width() * 0.61)),
            int(std::lround(m_rig->panel.hostingView()->height() * 0.15)));
        const int fullAlpha = opaque.pixelColor(probe).alpha();
        QVERIFY(fullAlpha > 200);
        QVERIFY2(std::abs(faded.pixelColor(probe).alpha() - fullAlpha * applied) <= 3,
            qPrintable(QStringLiteral("%1 vs %2").arg(faded.pixelColor(probe).alpha()).arg(fullAlpha * applied)));
        // The rounded ends leave the corners see-through.
        QCOMPARE(faded.pixelColor(0, 0).alpha(), 0);
    }

    void levelsRepaintWithoutRebuilding()
    {
        m_rig->panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        QPointer<MicIndicatorView> view = m_rig->panel.hostingView();
        PaintCounter counter;
        view->installEventFilter(&counter);

        m_rig->state.setPhase(DictoraPhase::recording());
        QTRY_VERIFY(counter.paints >= 1);
        const QImage quiet = view->grab().toImage();

        const int before = counter.paints;
        m_rig->state.setMeterLevels(AudioMeterLevels{1, 1, 1, 1});
        QTRY_VERIFY(counter.paints > before);
        const QImage loud = view->grab().toImage();

        QVERIFY(view);
        QCOMPARE(m_rig->panel.hostingView(), view.data());
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
        QCOMPARE(m_rig->panel.hostingView()->accessibleName(), DictoraPhase::idle().label());
        for (const DictoraPhase &phase : {DictoraPhase::recording(), DictoraPhase::error(QStringLiteral("Allow Microphone")),
                 DictoraPhase::idle()}) {
            m_rig->state.setPhase(phase);
            QCOMPARE(m_rig->panel.hostingView()->accessibleName(), phase.label());
            QCOMPARE(window()->accessibleName(), phase.label());
        }
    }

    // Every anchor × size × icon on a plain screen and on one that starts
    // away from the origin (a second display, a top panel).
    void anchors_data()
    {
        QTest::addColumn<ScreenAnchor>("anchor");
        QTest::addColumn<OverlaySize>("size");
        QTest::addColumn<bool>("icon");
        QTest::addColumn<QRectF>("available");
        const QList<QRectF> screens{QRectF(0, 0, 1920, 1080), QRectF(1920, 32, 1440, 868)};
        for (const QRectF &available : screens)
            for (ScreenAnchor anchor : allScreenAnchors())
                for (OverlaySize size : allOverlaySizes())
                    for (bool icon : {true, false})
                        QTest::addRow("%s %s %s @%d,%d", qPrintable(rawValue(anchor)), qPrintable(rawValue(size)),
                            icon ? "icon" : "bare", int(available.x()), int(available.y()))
                            << anchor << size << icon << available;
    }
    void anchors()
    {
        QFETCH(ScreenAnchor, anchor);
        QFETCH(OverlaySize, size);
        QFETCH(bool, icon);
        QFETCH(QRectF, available);
        const QSizeF panel = overlayPanelSize(size, icon);
        const QString raw = rawValue(anchor);
        const double x = raw.endsWith(QLatin1String("Left")) ? available.left() + 8
            : raw.endsWith(QLatin1String("Right"))            ? available.right() - 8 - panel.width()
                                                               : available.center().x() - panel.width() / 2;
        const double y = raw.startsWith(QLatin1String("top")) ? available.top() + 8 : available.bottom() - 8 - panel.height();
        QCOMPARE(anchoredTopLeft(anchor, available, panel), QPointF(x, y));
    }

    void screenUnderPointer_data()
    {
        QTest::addColumn<QList<QRect>>("screens");
        QTest::addColumn<QPoint>("pointer");
        QTest::addColumn<int>("expected");
        const QList<QRect> two{QRect(0, 0, 1920, 1080), QRect(1920, 0, 1280, 1024)};
        QTest::newRow("first") << two << QPoint(10, 10) << 0;
        QTest::newRow("second") << two << QPoint(2000, 500) << 1;
        QTest::newRow("last pixel of first") << two << QPoint(1919, 1079) << 0;
        QTest::newRow("first pixel of second") << two << QPoint(1920, 0) << 1;
        QTest::newRow("below the shorter screen") << two << QPoint(2000, 1050) << -1;
        QTest::newRow("no screens") << QList<QRect>() << QPoint(0, 0) << -1;
        const QList<QRect> overlapping{QRect(0, 0, 1920, 1080), QRect(0, 0, 1280, 1024)};
        QTest::newRow("mirrored: first in list wins") << overlapping << QPoint(5, 5) << 0;
    }
    void screenUnderPointer()
    {
        QFETCH(QList<QRect>, screens);
        QFETCH(QPoint, pointer);
        QFETCH(int, expected);
        QCOMPARE(screenIndexAt(screens, pointer), expected);
    }

    // The four bars' heights and the circle's opacity.
    void meter_data()
    {
        QTest::addColumn<DictoraPhase>("phase");
        QTest::addColumn<AudioMeterLevels>("levels");
        QTest::addColumn<QList<double>>("bars");
        QTest::addColumn<double>("circle");
        const AudioMeterLevels full = AudioMeterLevels{1, 1, 1, 1};
        const AudioMeterLevels mixed = AudioMeterLevels{0.5f, 0.25f, 0.04f, 0.75f};
        const QList<double> idle{5, 5, 5, 5};
        const DictoraPhase recording = DictoraPhase::recording();
        QTest::newRow("idle") << DictoraPhase::idle() << full << idle << 0.2;
        QTest::newRow("finalizing") << DictoraPhase::finalizing() << mixed << idle << 0.2;
        QTest::newRow("recording silent floors at 0.08")
            << recording << AudioMeterLevels() << QList<double>{5.64, 6.28, 5.96, 6.52} << 0.18;
        QTest::newRow("recording full") << recording << full << QList<double>{13, 21, 17, 24} << 0.38;
        QTest::newRow("recording, loudest is fourth") << recording << mixed << QList<double>{9.0, 9.0, 5.96, 19.25} << 0.33;
        QTest::newRow("recording, loudest is first")
            << recording << AudioMeterLevels{1.0f, 0.2f, 0.3f, 0.5f} << QList<double>{13, 8.2, 8.6, 14.5} << 0.38;
        QTest::newRow("recording out of range") << recording << AudioMeterLevels{2.0f, -1.0f, std::nanf(""), 1.0f}
                                                << QList<double>{13, 6.28, 5.96, 24} << 0.38;
    }
    void meter()
    {
        QFETCH(DictoraPhase, phase);
        QFETCH(AudioMeterLevels, levels);
        QFETCH(QList<double>, bars);
        QFETCH(double, circle);
        for (int i = 0; i < 4; ++i) {
            const double got = indicatorBarHeight(phase, levels, i);
            QVERIFY2(std::abs(got - bars.at(i)) < 1e-5, qPrintable(QStringLiteral("bar %1: %2").arg(i).arg(got)));
        }
        QVERIFY(std::abs(microphoneCircleOpacity(phase, levels) - circle) < 1e-6);
    }

    // Circle and bars sit inside the capsule, centred on its middle line, the
    // bars 3 apart and filling their box; the capsule's ends as far from the
    // content on both sides.
    void layout()
    {
        for (bool icon : {true, false}) {
            const IndicatorLayout l = indicatorLayout(icon);
            QVERIFY(l.bounds.contains(l.barBox));
            QCOMPARE(l.barBox.center().y(), l.bounds.center().y());
            if (icon) {
                QVERIFY(l.bounds.contains(l.circle) && l.circle.right() <= l.barBox.left());
                QCOMPARE(l.circle.center().y(), l.bounds.center().y());
                QCOMPARE(l.circle.left() - l.bounds.left(), l.bounds.right() - l.barBox.right());
            } else {
                QVERIFY(l.circle.isEmpty());
                QCOMPARE(l.barBox.center().x(), l.bounds.center().x());
            }
            double left = l.barBox.left() - 3.0;
            for (int i = 0; i < 4; ++i) {
                const QRectF bar = barRect(l.barBox, i, kMaximumBarHeights[size_t(i)]);
                QCOMPARE(bar.center().y(), l.barBox.center().y());
                QVERIFY(bar.top() >= l.barBox.top() && bar.bottom() <= l.barBox.bottom());
                QVERIFY(std::abs(bar.left() - left - 3.0) < 1e-9);
                left = bar.right();
            }
            QVERIFY(std::abs(left - l.barBox.right()) < 1e-9);
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
