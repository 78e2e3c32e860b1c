#include "X11TestSupport.h"
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "overlay/MicOverlayPanel.h"
#include "platform/x11/X11OverlayWindowHints.h"

#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QtTest>

#include <X11/Xlib.h>
#include <X11/extensions/shape.h>

#include <memory>

using namespace dictora;
namespace tx = dictora::test::x11;

// The indicator over an xterm on a real X server with a window manager, seen
// from a second client as the window manager and the user see it.
class OverlayX11Test : public QObject {
    Q_OBJECT

    dictora::x11::XConnection m_x;
    Display *m_dpy = m_x.display();
    std::unique_ptr<tx::ChildProgram> m_xterm;
    Window m_xtermWindow = None;
    test::IsolatedHome m_home;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;
    DictoraState m_state;
    std::unique_ptr<x11::X11OverlayWindowHints> m_hints;
    std::unique_ptr<MicOverlayPanel> m_panel;
    Window m_panelWindow = None;

    bool isInside(Window w, Window ancestor) const
    {
        for (Window root = None, parent = None, *children = nullptr; w != None; w = parent) {
            unsigned int n = 0;
            if (w == ancestor)
                return true;
            if (!XQueryTree(m_dpy, w, &root, &parent, &children, &n))
                return false;
            if (children)
                XFree(children);
            if (w == root)
                return false;
        }
        return false;
    }

    bool panelHasFocus() const
    {
        Window focus = None;
        int revert = 0;
        XGetInputFocus(m_dpy, &focus, &revert);
        return isInside(focus, m_panelWindow);
    }

    // The innermost window a click at the pointer would go to.
    Window underPointer() const
    {
        XSync(m_dpy, False);
        Window current = DefaultRootWindow(m_dpy);
        for (int depth = 0; depth < 32; ++depth) {
            Window root = None, child = None;
            int rx = 0, ry = 0, wx = 0, wy = 0;
            unsigned int mask = 0;
            if (!XQueryPointer(m_dpy, current, &root, &child, &rx, &ry, &wx, &wy, &mask) || child == None)
                break;
            current = child;
        }
        return current;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dpy);
        m_xterm = std::make_unique<tx::ChildProgram>(QStringLiteral("xterm"),
            QStringList{QStringLiteral("-geometry"), QStringLiteral("120x40+0+0")});
        QVERIFY(m_xterm->waitStarted());
        QTRY_VERIFY_WITH_TIMEOUT(tx::windowPid(tx::activeWindow()) == m_xterm->pid(), 20000);
        m_xtermWindow = Window(tx::activeWindow());

        m_settings = std::make_unique<QSettings>(QDir(m_home.path()).filePath(QStringLiteral("prefs.ini")),
            QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
        m_preferences->setMicrophoneLocation(ScreenAnchor::topLeft); // over the xterm
        QCursor::setPos(200, 200);
        m_hints = std::make_unique<x11::X11OverlayWindowHints>();
        m_panel = std::make_unique<MicOverlayPanel>(m_state, *m_preferences, m_hints.get());
        m_panel->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_panel->panel()));
        m_panelWindow = Window(m_panel->panel()->winId());
    }

    void cleanupTestCase()
    {
        m_panel.reset();
        m_xterm.reset();
    }

    // Shown, and shown again, the indicator leaves the focus with the xterm;
    // the window manager keeps it above, off the taskbars, on every desktop.
    void neverTakesFocus()
    {
        for (const char *state : {"_NET_WM_STATE_ABOVE", "_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER"})
            QTRY_VERIFY2(tx::windowProperty(m_panelWindow, "_NET_WM_STATE").contains(XInternAtom(m_dpy, state, False)), state);
        QCOMPARE(tx::windowProperty(m_panelWindow, "_NET_WM_DESKTOP"), QList<quint64>{0xFFFFFFFFUL});
        m_panel->show();
        QTest::qWait(300); // every chance for the window manager to hand focus over
        QCOMPARE(tx::activeWindow(), quint64(m_xtermWindow));
        QVERIFY(!panelHasFocus());
        QVERIFY(!m_panel->panel()->isActiveWindow());
    }

    void clickReachesTheWindowBelow()
    {
        const QPoint centre = m_panel->panel()->geometry().center();
        XWarpPointer(m_dpy, None, DefaultRootWindow(m_dpy), 0, 0, 0, 0, centre.x(), centre.y());
        // The window manager frames the panel asynchronously; wait for it to settle.
        Window under = None;
        QTRY_VERIFY2((under = underPointer()) != DefaultRootWindow(m_dpy) && !isInside(under, m_panelWindow)
                && (isInside(under, m_xtermWindow) || isInside(m_xtermWindow, under)),
            qPrintable(QStringLiteral("0x%1 is under the pointer, not the xterm 0x%2 (panel 0x%3)")
                           .arg(under, 0, 16).arg(m_xtermWindow, 0, 16).arg(m_panelWindow, 0, 16)));
        int rectangles = -1, ordering = 0;
        if (XRectangle *input = XShapeGetRectangles(m_dpy, m_panelWindow, ShapeInput, &rectangles, &ordering))
            XFree(input);
        QCOMPARE(rectangles, 0);

        // A real click there leaves the xterm active and the panel unfocused.
        QCOMPARE(QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("click"), QStringLiteral("1")}), 0);
        QTest::qWait(200);
        QCOMPARE(tx::activeWindow(), quint64(m_xtermWindow));
        QVERIFY(!panelHasFocus());
    }
};

int main(int argc, char **argv) { return tx::testMain<OverlayX11Test>(argc, argv, {"xterm", "xdotool"}); }

#include "tst_overlay_x11.moc"
