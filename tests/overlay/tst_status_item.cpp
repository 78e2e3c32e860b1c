#include "X11TestSupport.h"
#include "overlay/DictoraStatusItemController.h"
#include "overlay/MicrophoneGlyph.h"

#include <QAction>
#include <QApplication>
#include <QImage>
#include <QMenu>
#include <QPalette>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QtTest>

#include <X11/Xlib.h>

#include <functional>
#include <memory>

using namespace dictora;

namespace {

// Where the embedded tray icons (windows carrying _XEMBED_INFO) are, in root coordinates.
QList<QRect> embeddedIcons(Display *dpy)
{
    const Atom xembed = XInternAtom(dpy, "_XEMBED_INFO", False);
    const Window rootWindow = DefaultRootWindow(dpy);
    QList<QRect> icons;
    std::function<void(Window)> walk = [&](Window w) {
        int n = 0;
        Atom *props = XListProperties(dpy, w, &n);
        for (int i = 0; i < n; ++i) {
            if (props[i] != xembed)
                continue;
            XWindowAttributes a;
            int x = 0, y = 0;
            Window child = None;
            if (XGetWindowAttributes(dpy, w, &a) && XTranslateCoordinates(dpy, w, rootWindow, 0, 0, &x, &y, &child))
                icons.append(QRect(x, y, a.width, a.height));
        }
        if (props)
            XFree(props);
        Window root = None, parent = None, *children = nullptr;
        unsigned int childCount = 0;
        if (XQueryTree(dpy, w, &root, &parent, &children, &childCount)) {
            for (unsigned int i = 0; i < childCount; ++i)
                walk(children[i]);
            if (children)
                XFree(children);
        }
    };
    XSync(dpy, False);
    walk(rootWindow);
    return icons;
}

void click(const QPoint &at)
{
    QCOMPARE(QProcess::execute(QStringLiteral("xdotool"),
                 {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()),
                     QStringLiteral("click"), QStringLiteral("1")}),
        0);
}

} // namespace

// The tray icon and its menu; on a real X server with an XEmbed tray (trayer) once it runs.
class StatusItemTest : public QObject {
    Q_OBJECT

    dictora::x11::XConnection m_x;
    std::unique_ptr<dictora::test::x11::ChildProgram> m_tray;
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
    void initTestCase() { QVERIFY(m_x.isOpen()); }
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
        int opaque = 0;
        int mirrored = 0;
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QColor c = image.pixelColor(x, y);
                const QString at = QStringLiteral("%1,%2").arg(x).arg(y);
                if ((x == 0 || x == size - 1) && (y == 0 || y == size - 1))
                    QVERIFY2(c.alpha() == 0, qPrintable(at)); // a corner
                if (c.alpha() < 200)
                    continue;
                ++opaque;
                QVERIFY2(dark ? c.lightness() > 200 : c.lightness() < 60, qPrintable(at));
                mirrored += image.pixelColor(size - 1 - x, y).alpha() >= 128 ? 1 : 0;
            }
        }
        // Enough ink to be seen, not a filled square.
        QVERIFY2(opaque > size * size / 12 && opaque < size * size / 2, qPrintable(QString::number(opaque)));
        QVERIFY2(mirrored >= opaque * 9 / 10, qPrintable(QStringLiteral("%1 of %2").arg(mirrored).arg(opaque)));
    }

    void installWithoutTrayFails()
    {
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());
        DictoraStatusItemController item(countingActions());
        QVERIFY(!item.install());
        QVERIFY(!item.install() && !item.isInstalled() && !item.statusItem());
        QVERIFY(embeddedIcons(m_x.display()).isEmpty());
    }

    void startTray()
    {
        m_tray = std::make_unique<dictora::test::x11::ChildProgram>(QStringLiteral("trayer"),
            QStringList{"--edge", "top", "--align", "right", "--height", "24"});
        QVERIFY(m_tray->waitStarted());
        const Atom selection = XInternAtom(m_x.display(), "_NET_SYSTEM_TRAY_S0", False);
        QTRY_VERIFY_WITH_TIMEOUT(XGetSelectionOwner(m_x.display(), selection) != None, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 10000);
    }

    // Installed twice, one icon; a click on it opens the menu, one on its first entry opens the app.
    void clickOpensMenuThenOpenApp()
    {
        DictoraStatusItemController item(countingActions());
        QVERIFY(item.install());
        QTRY_COMPARE_WITH_TIMEOUT(embeddedIcons(m_x.display()).size(), 1, 10000);
        QSystemTrayIcon *first = item.statusItem();
        QVERIFY(item.install());
        QCOMPARE(item.statusItem(), first);
        QTest::qWait(200);
        QCOMPARE(embeddedIcons(m_x.display()).size(), 1);
        // Qt does not learn where the tray put an embedded icon; ask the server.
        QRect icon;
        QTRY_VERIFY_WITH_TIMEOUT((icon = embeddedIcons(m_x.display()).value(0)).top() >= 0 && icon.left() > 0, 10000);
        click(icon.center());
        QTRY_VERIFY_WITH_TIMEOUT(item.menu()->isVisible(), 10000);
        QCOMPARE(m_opened, 0);

        QAction *open = item.menu()->actions().at(0);
        click(item.menu()->mapToGlobal(item.menu()->actionGeometry(open).center()));
        QTRY_COMPARE_WITH_TIMEOUT(m_opened, 1, 10000);
        QCOMPARE(m_quit, 0);
        QTRY_VERIFY(!item.menu()->isVisible());
    }

    void iconFollowsPanelColour()
    {
        const QPalette original = QApplication::palette();
        DictoraStatusItemController item(countingActions());
        QVERIFY(item.install());
        QPalette dark = original;
        dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2b));
        QApplication::setPalette(dark);
        QTRY_VERIFY(item.usesDarkPanelIcon());
        QPalette light = original;
        light.setColor(QPalette::Window, QColor(0xf6, 0xf5, 0xf4));
        QApplication::setPalette(light);
        QTRY_VERIFY(!item.usesDarkPanelIcon());
        QApplication::setPalette(original);
    }
};

int main(int argc, char **argv)
{
    // No session bus here, so Qt looks for an XEmbed tray (trayer), as on a plain X desktop.
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    return dictora::test::x11::testMain<StatusItemTest>(argc, argv, {"trayer", "xdotool"});
}

#include "tst_status_item.moc"
