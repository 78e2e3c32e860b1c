#include "overlay/DictoraStatusItemController.h"
#include "overlay/MicrophoneGlyph.h"

#include <QAction>
#include <QApplication>
#include <QImage>
#include <QMenu>
#include <QPalette>
#include <QtTest>

using namespace dictora;

class StatusItemTest : public QObject {
    Q_OBJECT

    int m_opened = 0;
    int m_quit = 0;
    int m_pasted = 0;

    DictoraStatusItemController::Actions countingActions(bool withPasteLast = false)
    {
        DictoraStatusItemController::Actions actions{[this] { ++m_opened; }, [this] { ++m_quit; }};
        if (withPasteLast)
            actions.pasteLastDictation = [this] { ++m_pasted; };
        return actions;
    }

private Q_SLOTS:
    void init()
    {
        m_opened = 0;
        m_quit = 0;
        m_pasted = 0;
    }

    // The entries in order, each running its own action; paste-last only when offered.
    void entriesRunTheirAction_data()
    {
        QTest::addColumn<bool>("withPasteLast");
        QTest::addColumn<QString>("title");
        QTest::addColumn<int>("entry");
        QTest::addColumn<QList<int>>("counts"); // opened, pasted, quit
        QTest::newRow("Open App") << true << "Open App" << 0 << QList<int>{1, 0, 0};
        QTest::newRow("Paste Last Dictation") << true << "Paste Last Dictation" << 1 << QList<int>{0, 1, 0};
        QTest::newRow("Quit App") << true << "Quit App" << 2 << QList<int>{0, 0, 1};
        QTest::newRow("Quit App, no paste last") << false << "Quit App" << 1 << QList<int>{0, 0, 1};
    }
    void entriesRunTheirAction()
    {
        QFETCH(bool, withPasteLast);
        QFETCH(QString, title);
        QFETCH(int, entry);
        QFETCH(QList<int>, counts);
        DictoraStatusItemController item(countingActions(withPasteLast));
        const QList<QAction *> actions = item.menu()->actions();
        QCOMPARE(actions.size(), withPasteLast ? 3 : 2);
        QCOMPARE(actions.at(entry)->text(), title);
        actions.at(entry)->trigger();
        QCOMPARE((QList<int>{m_opened, m_pasted, m_quit}), counts);
    }

    void panelDarkness_data()
    {
        QTest::addColumn<QColor>("window");
        QTest::addColumn<bool>("dark");
        QTest::newRow("white") << QColor(Qt::white) << false;
        QTest::newRow("light grey (Adwaita)") << QColor(0xf6, 0xf5, 0xf4) << false;
        QTest::newRow("just above middle") << QColor(0x82, 0x82, 0x82) << false;
        QTest::newRow("just below middle") << QColor(0x7c, 0x7c, 0x7c) << true;
        QTest::newRow("Breeze dark") << QColor(0x31, 0x36, 0x3b) << true;
        QTest::newRow("black") << QColor(Qt::black) << true;
        QTest::newRow("saturated blue") << QColor(0x00, 0x00, 0xa0) << true;
    }
    void panelDarkness()
    {
        QFETCH(QColor, window);
        QFETCH(bool, dark);
        QPalette palette;
        palette.setColor(QPalette::Window, window);
        QCOMPARE(overlay::isDarkPanel(palette), dark);
    }

    // The glyph contrasts with the panel it is drawn for, is centred, and
    // leaves the corners clear at every tray size.
    void trayArt_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("dark");
        for (int size : {16, 22, 24, 48})
            for (bool dark : {true, false})
                QTest::addRow("%d %s", size, dark ? "dark panel" : "light panel") << size << dark;
    }
    void trayArt()
    {
        QFETCH(int, size);
        QFETCH(bool, dark);
        const QImage image = overlay::trayIconPixmap(size, dark).toImage().convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(image.size(), QSize(size, size));
        for (QPoint corner : {QPoint(0, 0), QPoint(size - 1, 0), QPoint(0, size - 1), QPoint(size - 1, size - 1)})
            QCOMPARE(image.pixelColor(corner).alpha(), 0);

        int opaque = 0;
        int mirrored = 0;
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QColor c = image.pixelColor(x, y);
                if (c.alpha() < 200)
                    continue;
                ++opaque;
                if (dark)
                    QVERIFY2(c.lightness() > 200, qPrintable(QStringLiteral("%1,%2").arg(x).arg(y)));
                else
                    QVERIFY2(c.lightness() < 60, qPrintable(QStringLiteral("%1,%2").arg(x).arg(y)));
                if (image.pixelColor(size - 1 - x, y).alpha() >= 128)
                    ++mirrored;
            }
        }
        // Enough ink to be seen, not a filled square.
        QVERIFY2(opaque > size * size / 12 && opaque < size * size / 2, qPrintable(QString::number(opaque)));
        QVERIFY2(mirrored >= opaque * 9 / 10, qPrintable(QStringLiteral("%1 of %2").arg(mirrored).arg(opaque)));
    }

};

QTEST_MAIN(StatusItemTest)
#include "tst_status_item.moc"
