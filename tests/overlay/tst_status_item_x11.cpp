#include "overlay/DictoraStatusItemController.h"
#include "support/TestSupport.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QPalette>
#include <QProcess>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QtTest>

#include <X11/Xlib.h>

#include <functional>
#include <memory>

using namespace dictora;

namespace {

struct DisplayCloser {
    void operator()(Display *d) const { XCloseDisplay(d); }
};

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

class StatusItemX11Test : public QObject {
    Q_OBJECT

    std::unique_ptr<Display, DisplayCloser> m_display{XOpenDisplay(nullptr)};
    QProcess m_tray;
    int m_opened = 0;
    int m_quit = 0;

    DictoraStatusItemController::Actions countingActions()
    {
        return {[this] { ++m_opened; }, [this] { ++m_quit; }};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_display);
    }

    void installWithoutTrayFails()
    {
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());
        DictoraStatusItemController item(countingActions());
        QVERIFY(!item.install());
        QVERIFY(!item.install() && !item.isInstalled() && !item.statusItem());
        QVERIFY(embeddedIcons(m_display.get()).isEmpty());
    }

    void startTray()
    {
        m_tray.start(QStringLiteral("trayer"), {QStringLiteral("--edge"), QStringLiteral("top"),
                                                   QStringLiteral("--align"), QStringLiteral("right"),
                                                   QStringLiteral("--height"), QStringLiteral("24")});
        QVERIFY(m_tray.waitForStarted());
        const Atom selection = XInternAtom(m_display.get(), "_NET_SYSTEM_TRAY_S0", False);
        QTRY_VERIFY_WITH_TIMEOUT(XGetSelectionOwner(m_display.get(), selection) != None, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 10000);
    }

    // Installed twice, one icon; a click on it opens the menu, one on its first entry opens the app.
    void clickOpensMenuThenOpenApp()
    {
        DictoraStatusItemController item(countingActions());
        QVERIFY(item.install());
        QTRY_COMPARE_WITH_TIMEOUT(embeddedIcons(m_display.get()).size(), 1, 10000);
        QSystemTrayIcon *first = item.statusItem();
        QVERIFY(item.install());
        QCOMPARE(item.statusItem(), first);
        QTest::qWait(200);
        QCOMPARE(embeddedIcons(m_display.get()).size(), 1);
        // Qt does not learn where the tray put an embedded icon; ask the server.
        QRect icon;
        QTRY_VERIFY_WITH_TIMEOUT((icon = embeddedIcons(m_display.get()).value(0)).top() >= 0 && icon.left() > 0, 10000);
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

    void cleanupTestCase()
    {
        if (m_tray.state() != QProcess::NotRunning) {
            m_tray.kill();
            m_tray.waitForFinished(5000);
        }
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qgetenv("QT_QPA_PLATFORM") != "xcb")
        return test::rigMissing("needs an X server (run through tests/support/x11/with-x)");
    // trayer is a small XEmbed tray (Debian package trayer).
    for (const char *tool : {"trayer", "xdotool"})
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            return test::rigMissing(tool[0] == 't' ? "trayer is not installed" : "xdotool is not installed");
    // No session bus here, so Qt looks for an XEmbed tray, as on a plain X desktop.
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    QApplication app(argc, argv);
    StatusItemX11Test test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_status_item_x11.moc"
