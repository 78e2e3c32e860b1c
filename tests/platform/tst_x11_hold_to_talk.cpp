#include "core/ShortcutGesture.h"
#include "platform/x11/X11ShortcutBackend.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QtTest>

using namespace dictora;
using Kind = DictoraPhase::Kind;

// Real key presses and releases (xdotool, through XTEST) on the real grab:
// holding the shortcut records until it comes up, a tap toggles.
class TestX11HoldToTalk : public QObject {
    Q_OBJECT

    DictoraState m_state;
    bool m_holdToTalk = true;
    int m_toggles = 0;
    std::unique_ptr<x11::X11ShortcutBackend> m_backend;
    std::unique_ptr<ShortcutGesture> m_gesture;

    static bool xdotool(const QStringList &arguments)
    {
        return QProcess::execute(QStringLiteral("xdotool"), arguments) == 0;
    }
    bool waitForPhase(Kind kind)
    {
        return QTest::qWaitFor([&] { return m_state.phase().kind() == kind; }, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("xdotool").isEmpty())
            QSKIP("xdotool is not installed");
        m_backend = std::make_unique<x11::X11ShortcutBackend>();
        QVERIFY2(m_backend->install(GlobalShortcut::defaultShortcut()), qPrintable(m_backend->failureReason()));
        m_gesture = std::make_unique<ShortcutGesture>(m_state, [this] { return m_holdToTalk; });
        connect(m_backend.get(), &ShortcutBackend::pressed, m_gesture.get(), &ShortcutGesture::press);
        connect(m_backend.get(), &ShortcutBackend::released, m_gesture.get(), &ShortcutGesture::release);
        // The controller's part: start at once, stop when recording.
        connect(m_gesture.get(), &ShortcutGesture::toggleRequested, this, [this] {
            ++m_toggles;
            m_state.setPhase(m_state.phase().is(Kind::recording) ? DictoraPhase::idle() : DictoraPhase::recording());
        });
        // A held key's release asks for a stop.
        connect(m_gesture.get(), &ShortcutGesture::stopRequested, this, [this] {
            ++m_toggles;
            m_state.setPhase(DictoraPhase::idle());
        });
    }

    void init()
    {
        m_state.setPhase(DictoraPhase::idle());
        m_toggles = 0;
    }

    void holdRecordsUntilRelease_data()
    {
        QTest::addColumn<bool>("holdToTalk");
        QTest::addColumn<int>("holdMs");
        QTest::addColumn<int>("toggles");
        QTest::addColumn<bool>("recordingAfterRelease");
        QTest::newRow("hold to talk, held") << true << 700 << 2 << false;
        // Long enough for the server's auto-repeat: still one press, one release.
        QTest::newRow("hold to talk, held through repeats") << true << 1500 << 2 << false;
        QTest::newRow("hold to talk, tapped") << true << 0 << 1 << true;
        QTest::newRow("toggle, held") << false << 700 << 1 << true;
    }

    void holdRecordsUntilRelease()
    {
        QFETCH(bool, holdToTalk);
        QFETCH(int, holdMs);
        QFETCH(int, toggles);
        QFETCH(bool, recordingAfterRelease);
        m_holdToTalk = holdToTalk;
        QSignalSpy pressed(m_backend.get(), &ShortcutBackend::pressed);
        QSignalSpy released(m_backend.get(), &ShortcutBackend::released);

        if (holdMs == 0) {
            QVERIFY(xdotool({"keydown", "grave", "keyup", "grave"}));
        } else {
            QVERIFY(xdotool({"keydown", "grave"}));
            QVERIFY(waitForPhase(Kind::recording));
            QTest::qWait(holdMs);
            QVERIFY(m_state.phase().is(Kind::recording)); // still held: still recording
            QVERIFY(xdotool({"keyup", "grave"}));
        }
        QVERIFY(QTest::qWaitFor([&] { return released.count() == 1; }, 5000));
        QCOMPARE(pressed.count(), 1);
        QCOMPARE(m_toggles, toggles);
        QCOMPARE(m_state.phase().is(Kind::recording), recordingAfterRelease);

        if (recordingAfterRelease) { // the next press stops, as in toggle mode
            QVERIFY(xdotool({"keydown", "grave", "keyup", "grave"}));
            QVERIFY(waitForPhase(Kind::idle));
            QVERIFY(QTest::qWaitFor([&] { return released.count() == 2; }, 5000));
            QCOMPARE(m_toggles, toggles + 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestX11HoldToTalk)
#include "tst_x11_hold_to_talk.moc"
