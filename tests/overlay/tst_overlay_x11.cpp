#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "overlay/MicOverlayPanel.h"
#include "platform/x11/X11OverlayWindowHints.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QWidget>
#include <QtTest>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/shape.h>

#include <memory>

using namespace dictora;

namespace {

struct DisplayCloser {
    void operator()(Display *d) const { XCloseDisplay(d); }
};
struct XFreeDeleter {
    void operator()(void *p) const
    {
        if (p)
            XFree(p);
    }
};

// The observer's own connection, as a window manager or a second client would see things.
class XProbe {
public:
    XProbe() : m_display(XOpenDisplay(nullptr)) {}
    bool isOpen() const { return bool(m_display); }
    Display *dpy() const { return m_display.get(); }
    Window root() const { return DefaultRootWindow(dpy()); }
    Atom atom(const char *name) const { return XInternAtom(dpy(), name, False); }

    QList<unsigned long> longs(Window w, const char *property, Atom type) const
    {
        XSync(dpy(), False);
        Atom actualType = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char *raw = nullptr;
        QList<unsigned long> out;
        if (XGetWindowProperty(dpy(), w, atom(property), 0, 1024, False, type, &actualType, &format, &count,
                &after, &raw) == Success
            && raw && format == 32) {
            const auto *values = reinterpret_cast<const unsigned long *>(raw);
            for (unsigned long i = 0; i < count; ++i)
                out.append(values[i] & 0xFFFFFFFFUL); // Xlib widens 32-bit items to long
        }
        std::unique_ptr<unsigned char, XFreeDeleter> guard(raw);
        return out;
    }

    Window activeWindow() const
    {
        const QList<unsigned long> v = longs(root(), "_NET_ACTIVE_WINDOW", XA_WINDOW);
        return v.isEmpty() ? None : Window(v.first());
    }

    Window inputFocus() const
    {
        Window focus = None;
        int revert = 0;
        XGetInputFocus(dpy(), &focus, &revert);
        return focus;
    }

    // The client window of a top-level whose _NET_WM_PID is pid.
    Window windowOfPid(qint64 pid) const
    {
        const QList<unsigned long> clients = longs(root(), "_NET_CLIENT_LIST", XA_WINDOW);
        for (unsigned long w : clients) {
            const QList<unsigned long> p = longs(Window(w), "_NET_WM_PID", XA_CARDINAL);
            if (!p.isEmpty() && qint64(p.first()) == pid)
                return Window(w);
        }
        return None;
    }

    // The innermost window that would receive a click at the pointer.
    Window deepestUnderPointer() const
    {
        XSync(dpy(), False);
        Window current = root();
        for (int depth = 0; depth < 32; ++depth) {
            Window r = None, child = None;
            int rx = 0, ry = 0, wx = 0, wy = 0;
            unsigned int mask = 0;
            if (!XQueryPointer(dpy(), current, &r, &child, &rx, &ry, &wx, &wy, &mask) || child == None)
                return current;
            current = child;
        }
        return current;
    }

    bool isAncestorOrSelf(Window ancestor, Window w) const
    {
        while (w != None) {
            if (w == ancestor)
                return true;
            Window r = None, parent = None;
            Window *children = nullptr;
            unsigned int n = 0;
            if (!XQueryTree(dpy(), w, &r, &parent, &children, &n))
                return false;
            if (children)
                XFree(children);
            if (w == r)
                return false;
            w = parent;
        }
        return false;
    }

    bool isViewable(Window w) const
    {
        XWindowAttributes a;
        return XGetWindowAttributes(dpy(), w, &a) && a.map_state == IsViewable;
    }

    QPoint rootPosition(Window w) const
    {
        int x = 0, y = 0;
        Window child = None;
        XTranslateCoordinates(dpy(), w, root(), 0, 0, &x, &y, &child);
        return {x, y};
    }

    void sendToRoot(Window w, const char *type, long a0, long a1 = 0)
    {
        XEvent e{};
        e.xclient.type = ClientMessage;
        e.xclient.window = w;
        e.xclient.message_type = atom(type);
        e.xclient.format = 32;
        e.xclient.data.l[0] = a0;
        e.xclient.data.l[1] = a1;
        XSendEvent(dpy(), root(), False, SubstructureRedirectMask | SubstructureNotifyMask, &e);
        XSync(dpy(), False);
    }

private:
    std::unique_ptr<Display, DisplayCloser> m_display;
};

} // namespace

class OverlayX11Test : public QObject {
    Q_OBJECT

    XProbe m_x;
    QProcess m_xterm;
    Window m_xtermWindow = None;
    test::IsolatedHome m_home;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;
    std::unique_ptr<DictoraState> m_state;
    std::unique_ptr<x11::X11OverlayWindowHints> m_hints;
    std::unique_ptr<MicOverlayPanel> m_panel;
    Window m_panelWindow = None;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_x.isOpen());
        m_xterm.start(QStringLiteral("xterm"), {QStringLiteral("-geometry"), QStringLiteral("120x40+0+0")});
        QVERIFY(m_xterm.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT((m_xtermWindow = m_x.windowOfPid(m_xterm.processId())) != None, 20000);
        m_x.sendToRoot(m_xtermWindow, "_NET_ACTIVE_WINDOW", 2);
        QTRY_COMPARE_WITH_TIMEOUT(m_x.activeWindow(), m_xtermWindow, 10000);

        m_settings = std::make_unique<QSettings>(QDir(m_home.path()).filePath(QStringLiteral("prefs.ini")),
            QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
        m_preferences->setMicrophoneLocation(ScreenAnchor::topLeft);
        m_state = std::make_unique<DictoraState>();
        // Over the xterm, so a click that passed through would land on it.
        QCursor::setPos(200, 200);
        m_hints = std::make_unique<x11::X11OverlayWindowHints>();
        m_panel = std::make_unique<MicOverlayPanel>(*m_state, *m_preferences, m_hints.get());
        m_panel->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_panel->panel()));
        m_panelWindow = Window(m_panel->panel()->winId());
        QTRY_VERIFY_WITH_TIMEOUT(m_x.isViewable(m_panelWindow), 10000);
    }

    void cleanupTestCase()
    {
        m_panel.reset();
        if (m_xterm.state() != QProcess::NotRunning) {
            m_xterm.kill();
            m_xterm.waitForFinished(5000);
        }
    }

    void showingDoesNotTakeFocus()
    {
        // Give the window manager every chance to hand focus over.
        QTest::qWait(300);
        QCOMPARE(m_x.activeWindow(), m_xtermWindow);
        QVERIFY(!m_x.isAncestorOrSelf(m_panelWindow, m_x.inputFocus()));
        QVERIFY(!m_panel->panel()->isActiveWindow());

        // Even asked directly, the window manager leaves focus where it is.
        m_panel->show();
        QTest::qWait(300);
        QCOMPARE(m_x.activeWindow(), m_xtermWindow);
    }

    void stateKeepsItOnTopAndOffTaskbars_data()
    {
        QTest::addColumn<QString>("state");
        QTest::newRow("above") << QStringLiteral("_NET_WM_STATE_ABOVE");
        QTest::newRow("skip taskbar") << QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR");
        QTest::newRow("skip pager") << QStringLiteral("_NET_WM_STATE_SKIP_PAGER");
    }
    void stateKeepsItOnTopAndOffTaskbars()
    {
        QFETCH(QString, state);
        const Atom wanted = m_x.atom(state.toLatin1().constData());
        QTRY_VERIFY(m_x.longs(m_panelWindow, "_NET_WM_STATE", XA_ATOM).contains(wanted));
    }

    void followsPreferencesOnTheRealScreen()
    {
        m_preferences->setMicrophoneSize(OverlaySize::large);
        m_preferences->setMicrophoneLocation(ScreenAnchor::bottomRight);
        XWindowAttributes a;
        QTRY_VERIFY(XGetWindowAttributes(m_x.dpy(), m_panelWindow, &a) && a.width == 88 && a.height == 50);
        QTRY_COMPARE(m_x.rootPosition(m_panelWindow), QPoint(1920 - 88 - 8, 1080 - 50 - 8));
        QVERIFY(m_x.isViewable(m_panelWindow));

        m_preferences->setMicrophoneSize(OverlaySize::medium);
        m_preferences->setMicrophoneLocation(ScreenAnchor::topLeft);
        QTRY_COMPARE(m_x.rootPosition(m_panelWindow), QPoint(8, 8));
        QTRY_VERIFY(XGetWindowAttributes(m_x.dpy(), m_panelWindow, &a) && a.width == 69 && a.height == 39);
        // Moving about never hands it focus.
        QCOMPARE(m_x.activeWindow(), m_xtermWindow);
    }

    void clicksFallThrough()
    {
        const QRect g = m_panel->panel()->geometry();
        XWarpPointer(m_x.dpy(), None, m_x.root(), 0, 0, 0, 0, g.center().x(), g.center().y());
        XSync(m_x.dpy(), False);

        // The frame manager works asynchronously; wait for it to settle.
        Window under = None;
        const auto reachesXterm = [&] {
            under = m_x.deepestUnderPointer();
            return under != m_x.root() && !m_x.isAncestorOrSelf(m_panelWindow, under)
                && (m_x.isAncestorOrSelf(m_xtermWindow, under) || m_x.isAncestorOrSelf(under, m_xtermWindow));
        };
        QTRY_VERIFY2(reachesXterm(),
            qPrintable(QStringLiteral("window 0x%1 is under the pointer, not the xterm 0x%2 (panel 0x%3)")
                           .arg(under, 0, 16)
                           .arg(m_xtermWindow, 0, 16)
                           .arg(m_panelWindow, 0, 16)));

        int rectangles = -1;
        int ordering = 0;
        XRectangle *input = XShapeGetRectangles(m_x.dpy(), m_panelWindow, ShapeInput, &rectangles, &ordering);
        std::unique_ptr<XRectangle, XFreeDeleter> guard(input);
        QCOMPARE(rectangles, 0);

        // A real click there leaves the xterm active and the panel unfocused.
        if (!QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()) {
            QCOMPARE(QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("click"), QStringLiteral("1")}), 0);
            QTest::qWait(200);
            QCOMPARE(m_x.activeWindow(), m_xtermWindow);
            QVERIFY(!m_x.isAncestorOrSelf(m_panelWindow, m_x.inputFocus()));
        }
    }

    void staysOnEveryDesktop()
    {
        const QList<unsigned long> desktops = m_x.longs(m_x.root(), "_NET_NUMBER_OF_DESKTOPS", XA_CARDINAL);
        if (desktops.isEmpty() || desktops.first() < 2)
            QSKIP("the window manager offers a single desktop");
        QCOMPARE(m_x.longs(m_panelWindow, "_NET_WM_DESKTOP", XA_CARDINAL).value(0), 0xFFFFFFFFUL);

        m_x.sendToRoot(m_x.root(), "_NET_CURRENT_DESKTOP", 1);
        QTRY_COMPARE(m_x.longs(m_x.root(), "_NET_CURRENT_DESKTOP", XA_CARDINAL).value(0), 1UL);
        QTRY_VERIFY(!m_x.isViewable(m_xtermWindow));
        QVERIFY(m_x.isViewable(m_panelWindow));

        m_x.sendToRoot(m_x.root(), "_NET_CURRENT_DESKTOP", 0);
        QTRY_COMPARE(m_x.longs(m_x.root(), "_NET_CURRENT_DESKTOP", XA_CARDINAL).value(0), 0UL);
        QVERIFY(m_x.isViewable(m_panelWindow));
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qgetenv("QT_QPA_PLATFORM") != "xcb")
        return test::rigMissing("needs an X server (run through tests/support/x11/with-x)");
    if (QStandardPaths::findExecutable(QStringLiteral("xterm")).isEmpty())
        return test::rigMissing("xterm is not installed");
    QApplication app(argc, argv);
    OverlayX11Test test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_overlay_x11.moc"
