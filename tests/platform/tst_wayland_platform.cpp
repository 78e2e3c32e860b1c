// The wlroots backends against a real headless Sway and foot (tests/support/wayland/with-sway).
#include "SwaySupport.h"
#include "support/TestSupport.h"

#include "platform/wayland/WaylandClipboard.h"
#include "platform/wayland/WaylandKeystrokeSender.h"
#include "platform/wayland/WaylandWindowTracker.h"
#include "platform/wayland/XkbKeymap.h"

#include <QDir>
#include <QGuiApplication>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <optional>

using namespace dictora;
using namespace dictora::wayland;
namespace sway = dictora::test::sway;

class TestWaylandPlatform : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<sway::Foot> m_editor;   // app id dictora-test-editor, has a desktop entry
    std::unique_ptr<sway::Foot> m_terminal; // app id dictora-test-term, has none
    // Made before any client starts, as at login: clients rebind a seat's first keyboard, losing keys meanwhile.
    std::unique_ptr<WaylandKeystrokeSender> m_keys;

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

    // Waits for the tracker to see what Sway itself reports as focused.
    static bool trackerSees(WaylandWindowTracker &tracker, const QString &appId)
    {
        return QTest::qWaitFor([&] { return tracker.frontmostWindow().value_or(FrontmostWindow{}).windowClass == appId; }, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The application name comes from a desktop entry named by the app id.
        const QString applications = m_dir.filePath(QStringLiteral("data/applications"));
        QVERIFY(QDir().mkpath(applications));
        QVERIFY(test::writeFile(applications + QStringLiteral("/dictora-test-editor.desktop"),
                                "[Desktop Entry]\nType=Application\nName=Scratch Editor\nExec=foot\n"));
        qputenv("XDG_DATA_HOME", m_dir.filePath(QStringLiteral("data")).toUtf8());
        qputenv("XDG_DATA_DIRS", m_dir.filePath(QStringLiteral("none")).toUtf8());

        m_keys = std::make_unique<WaylandKeystrokeSender>();
        QVERIFY2(m_keys->isUsable(), qPrintable(m_keys->failureReason()));
        QVERIFY(!m_keys->anyKeyHeld());

        QString why;
        m_editor = std::make_unique<sway::Foot>(QStringLiteral("dictora-test-editor"), path("editor.txt"));
        QVERIFY2(m_editor->start(&why), qPrintable(why));
        m_terminal = std::make_unique<sway::Foot>(QStringLiteral("dictora-test-term"), path("term.txt"));
        QVERIFY2(m_terminal->start(&why), qPrintable(why));
    }

    void cleanupTestCase()
    {
        m_terminal.reset();
        m_editor.reset();
        m_keys.reset();
    }

    // The key for V and the modifiers are looked up in the layout, not assumed.
    void keysComeFromTheLayout_data()
    {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QString>("variant");
        QTest::addColumn<quint32>("keysym");
        QTest::addColumn<quint32>("evdev");
        QTest::newRow("us v") << "us" << "" << quint32(XKB_KEY_v) << 47u;
        QTest::newRow("dvorak v on the period key") << "us" << "dvorak" << quint32(XKB_KEY_v) << 52u;
        QTest::newRow("french a on the q key") << "fr" << "" << quint32(XKB_KEY_a) << 16u;
    }

    void keysComeFromTheLayout()
    {
        QFETCH(QString, layout);
        QFETCH(QString, variant);
        QFETCH(quint32, keysym);
        QFETCH(quint32, evdev);
        QString why;
        const auto keymap = XkbKeymap::fromNames(layout, variant, &why);
        QVERIFY2(keymap, qPrintable(why));
        QCOMPARE(keymap->evdevCodeFor(keysym), std::optional<quint32>(evdev));
        // What is uploaded compiles back to the same keys.
        const auto again = XkbKeymap::fromText(keymap->text(), &why);
        QVERIFY2(again, qPrintable(why));
        QCOMPARE(again->evdevCodeFor(keysym), std::optional<quint32>(evdev));
    }

    void keymapTextThatIsNotAKeymapIsRefused()
    {
        QString why;
        QVERIFY(!XkbKeymap::fromText("xkb_keymap { this is not one", &why) && !why.isEmpty());
    }

    void trackerFollowsTheFocus_data()
    {
        QTest::addColumn<QString>("appId");
        QTest::addColumn<QString>("name");
        QTest::newRow("editor, named by its desktop entry") << "dictora-test-editor" << "Scratch Editor";
        QTest::newRow("terminal, named by its app id") << "dictora-test-term" << "dictora-test-term";
    }

    void trackerFollowsTheFocus()
    {
        QFETCH(QString, appId);
        QFETCH(QString, name);
        WaylandWindowTracker tracker;
        QVERIFY2(tracker.isUsable(), qPrintable(tracker.failureReason()));
        QString why;
        QVERIFY2(sway::focus(appId, &why), qPrintable(why));
        QVERIFY2(trackerSees(tracker, appId), qPrintable(sway::focusedAppId()));
        const auto window = tracker.frontmostWindow();
        QCOMPARE(window->applicationName, name);
        QVERIFY(!window->window.isNull());
        QVERIFY(tracker.isActive(window->window));
        QCOMPARE(window->processId, 0); // the protocol names no process
    }

    void closedWindowIsNeitherActiveNorActivated()
    {
        QString why;
        sway::Foot brief(QStringLiteral("dictora-test-brief"), path("brief.txt"));
        QVERIFY2(brief.start(&why), qPrintable(why));
        WaylandWindowTracker tracker;
        QVERIFY(trackerSees(tracker, brief.appId()));
        const WindowHandle handle = tracker.frontmostWindow()->window;
        QVERIFY(sway::command(QStringLiteral("[app_id=\"dictora-test-brief\"] kill"), &why));
        QTRY_VERIFY_WITH_TIMEOUT(!tracker.isActive(handle), 5000);
        tracker.requestActivation(handle); // a window gone is no error
        QTest::qWait(200);
        QVERIFY(!tracker.isActive(handle));
    }

    // The text we serve reaches a native client through the keystroke, and the read is reported.
    void pasteReachesFoot_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("keystroke");
        QTest::addColumn<QString>("expected");
        const QString plain = QStringLiteral("Please send the invoice to 12 Harbour Road");
        QTest::newRow("non-ASCII") << QString::fromUtf8("The café in Zürich, 東京 too") << int(PasteKeystroke::controlShiftV)
                                   << QString::fromUtf8("The café in Zürich, 東京 too");
        // More than a pipe holds: served from the event loop in pieces.
        const QString longText = QStringLiteral("0123456789abcdef").repeated(16 * 1024);
        QTest::newRow("256 KiB") << longText << int(PasteKeystroke::controlShiftV) << longText;
        // A terminal takes Ctrl+V as a control character, not a paste.
        QTest::newRow("ctrl+v is a control key in a terminal") << plain << int(PasteKeystroke::controlV)
                                                               << QStringLiteral("\x16");
    }

    void pasteReachesFoot()
    {
        QFETCH(QString, text);
        QFETCH(int, keystroke);
        QFETCH(QString, expected);
        QString why;
        sway::Foot target(QStringLiteral("dictora-test-target"), path("target.txt"));
        QVERIFY2(target.start(&why), qPrintable(why));

        WaylandClipboard clipboard;
        QVERIFY2(clipboard.isUsable(), qPrintable(clipboard.failureReason()));
        QSignalSpy reads(&clipboard, &ClipboardReadWatcher::textRead);
        QVERIFY(clipboard.setText(text, false));
        QVERIFY(m_keys->send(PasteKeystroke(keystroke)));
        QString actual;
        QVERIFY2(target.waitFor(expected, 20000, &actual),
                 qPrintable(QStringLiteral("foot received %1 chars: %2").arg(actual.size()).arg(actual.left(80))));
        if (PasteKeystroke(keystroke) != PasteKeystroke::controlV) {
            QTRY_VERIFY_WITH_TIMEOUT(!reads.isEmpty(), 5000);
            QCOMPARE(reads.first().first().toString(), QStringLiteral("clipboard"));
        }
    }

    // "Keep my clipboard": another client's copy, every format, is read and is there again after our paste.
    void copiedFormatsComeBack()
    {
        const auto sorted = [](ClipboardContents c) {
            std::sort(c.formats.begin(), c.formats.end());
            return c.formats;
        };
        // Until the compositor has told `reader` of the selection.
        const auto readsBack = [&](WaylandClipboard &reader, const ClipboardContents &expected) {
            for (int i = 0; i < 50; ++i) {
                std::optional<ClipboardContents> read;
                reader.readContents([&](ClipboardContents c) { read = std::move(c); });
                if (QTest::qWaitFor([&] { return read.has_value(); }, 2000) && sorted(*read) == sorted(expected))
                    return true;
                QTest::qWait(100);
            }
            return false;
        };
        WaylandClipboard other, ours;
        QVERIFY2(other.isUsable() && ours.isUsable(), qPrintable(other.failureReason() + ours.failureReason()));
        const ClipboardContents copied{{{QStringLiteral("text/plain"), "copied before"},
            {QStringLiteral("text/html"), "<b>copied</b> before"},
            {QStringLiteral("application/x-dictora-test"), QByteArray("\x00\x01\xff binary", 10)}}};
        QVERIFY(other.restore(copied));
        QVERIFY(readsBack(ours, copied));
        QVERIFY(ours.setText(QStringLiteral("the transcript"), false));
        QVERIFY(readsBack(other, {{{QStringLiteral("text/plain"), "the transcript"},
                                      {QStringLiteral("text/plain;charset=utf-8"), "the transcript"}}}));
        QVERIFY(ours.restore(copied));
        QVERIFY(readsBack(other, copied));
    }
};

int main(int argc, char **argv)
{
    if (const int skip = dictora::test::sway::checkSession())
        return skip;
    QGuiApplication app(argc, argv);
    TestWaylandPlatform tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_wayland_platform.moc"
