#include "overlay/OverlayGeometry.h"

#include <QtTest>

#include <cmath>

using namespace dictora;
using namespace dictora::overlay;

Q_DECLARE_METATYPE(dictora::ScreenAnchor)
Q_DECLARE_METATYPE(dictora::OverlaySize)

namespace {

bool fuzzyEqual(double a, double b)
{
    return std::abs(a - b) < 1e-6;
}

} // namespace

class OverlayGeometryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
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
        const QPointF p = anchoredTopLeft(anchor, available, panel);
        const QRectF placed(p, panel);

        const QString raw = rawValue(anchor);
        const bool top = raw.startsWith(QLatin1String("top"));
        if (top)
            QVERIFY(fuzzyEqual(placed.top() - available.top(), 8.0));
        else
            QVERIFY(fuzzyEqual(available.bottom() - placed.bottom(), 8.0));

        if (raw.endsWith(QLatin1String("Left")))
            QVERIFY(fuzzyEqual(placed.left() - available.left(), 8.0));
        else if (raw.endsWith(QLatin1String("Right")))
            QVERIFY(fuzzyEqual(available.right() - placed.right(), 8.0));
        else
            QVERIFY(fuzzyEqual(placed.center().x(), available.center().x()));
        QVERIFY(available.contains(placed));
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

    void barHeights_data()
    {
        QTest::addColumn<DictoraPhase>("phase");
        QTest::addColumn<AudioMeterLevels>("levels");
        QTest::addColumn<QList<double>>("expected");
        const AudioMeterLevels zero;
        const AudioMeterLevels full = AudioMeterLevels{1, 1, 1, 1};
        const AudioMeterLevels mixed = AudioMeterLevels{0.5f, 0.25f, 0.04f, 0.75f};
        const QList<double> idle{5, 5, 5, 5};
        QTest::newRow("idle") << DictoraPhase::idle() << full << idle;
        QTest::newRow("finalizing") << DictoraPhase::finalizing() << mixed << idle;
        QTest::newRow("recording silent floors at 0.08")
            << DictoraPhase::recording() << zero << QList<double>{5.64, 6.28, 5.96, 6.52};
        QTest::newRow("recording full") << DictoraPhase::recording() << full << QList<double>{13, 21, 17, 24};
        QTest::newRow("recording mixed")
            << DictoraPhase::recording() << mixed << QList<double>{9.0, 9.0, 5.96, 19.25};
        QTest::newRow("recording out of range")
            << DictoraPhase::recording() << AudioMeterLevels{2.0f, -1.0f, std::nanf(""), 1.0f}
            << QList<double>{13, 6.28, 5.96, 24};
    }
    void barHeights()
    {
        QFETCH(DictoraPhase, phase);
        QFETCH(AudioMeterLevels, levels);
        QFETCH(QList<double>, expected);
        for (int i = 0; i < 4; ++i) {
            const double got = indicatorBarHeight(phase, levels, i);
            QVERIFY2(std::abs(got - expected.at(i)) < 1e-5,
                qPrintable(QStringLiteral("bar %1: %2 != %3").arg(i).arg(got).arg(expected.at(i))));
        }
    }

    void circleOpacity_data()
    {
        QTest::addColumn<DictoraPhase>("phase");
        QTest::addColumn<AudioMeterLevels>("levels");
        QTest::addColumn<double>("expected");
        QTest::newRow("idle") << DictoraPhase::idle() << AudioMeterLevels{1, 1, 1, 1} << 0.2;
        QTest::newRow("finalizing") << DictoraPhase::finalizing() << AudioMeterLevels{0.5f, 0, 0, 0} << 0.2;
        QTest::newRow("recording silent") << DictoraPhase::recording() << AudioMeterLevels() << 0.18;
        QTest::newRow("recording loudest is fourth")
            << DictoraPhase::recording() << AudioMeterLevels{0.1f, 0.2f, 0.3f, 0.5f} << 0.28;
        QTest::newRow("recording loudest is first")
            << DictoraPhase::recording() << AudioMeterLevels{1.0f, 0.2f, 0.3f, 0.5f} << 0.38;
        QTest::newRow("recording overdriven") << DictoraPhase::recording() << AudioMeterLevels{0, 4.0f, 0, 0} << 0.38;
    }
    void circleOpacity()
    {
        QFETCH(DictoraPhase, phase);
        QFETCH(AudioMeterLevels, levels);
        QFETCH(double, expected);
        QVERIFY(std::abs(microphoneCircleOpacity(phase, levels) - expected) < 1e-6);
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

QTEST_APPLESS_MAIN(OverlayGeometryTest)
#include "tst_overlay_geometry.moc"
