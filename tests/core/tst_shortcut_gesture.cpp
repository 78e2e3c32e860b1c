#include "core/ShortcutGesture.h"

#include <QtTest>

using namespace dictora;
using Kind = DictoraPhase::Kind;

namespace {

// Stands in for the controller: a toggle from idle opens the microphone
// (preparing), and the script says when it is open; a toggle while
// recording stops. Presses while preparing are dropped, as the controller does.
struct Session {
    DictoraState state;
    bool holdToTalk = false;
    qint64 now = 0;
    int toggles = 0;
    ShortcutGesture gesture{state, [this] { return holdToTalk; }};

    Session()
    {
        gesture.setClock([this] { return now; });
        QObject::connect(&gesture, &ShortcutGesture::toggleRequested, [this] {
            ++toggles;
            const Kind kind = state.phase().kind();
            if (kind == Kind::idle || kind == Kind::error)
                state.setPhase(DictoraPhase::preparing());
            else if (kind == Kind::recording)
                state.setPhase(DictoraPhase::idle());
        });
    }

    void run(const QString &script)
    {
        for (const QString &step : script.split(' ', Qt::SkipEmptyParts)) {
            if (step == "down")
                gesture.press();
            else if (step == "up")
                gesture.release();
            else if (step == "open") // the microphone started
                state.setPhase(DictoraPhase::recording());
            else if (step == "fail") // it could not start
                state.setPhase(DictoraPhase::error("Allow Microphone"));
            else if (step.startsWith("+"))
                now += step.mid(1).toLongLong();
            else
                QFAIL(qPrintable("unknown step " + step));
        }
    }
};

QString phaseName(Kind kind)
{
    switch (kind) {
    case Kind::idle: return "idle";
    case Kind::preparing: return "preparing";
    case Kind::recording: return "recording";
    case Kind::finalizing: return "finalizing";
    case Kind::error: return "error";
    case Kind::needsAccessibility: return "needsAccessibility";
    }
    return {};
}

} // namespace

class TestShortcutGesture : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void gestures_data()
    {
        QTest::addColumn<bool>("holdToTalk");
        QTest::addColumn<QString>("script");
        QTest::addColumn<int>("toggles");
        QTest::addColumn<QString>("phase");

        // Toggle mode: the key going up never matters.
        QTest::newRow("toggle: press starts") << false << "down open +800 up" << 1 << "recording";
        QTest::newRow("toggle: second press stops") << false << "down open +800 up +2000 down +50 up" << 2 << "idle";

        // Hold to talk.
        QTest::newRow("hold: held records until release") << true << "down open +800 up" << 2 << "idle";
        QTest::newRow("hold: exactly the threshold counts as held") << true << "down open +300 up" << 2 << "idle";
        QTest::newRow("hold: a tap keeps recording") << true << "down open +120 up" << 1 << "recording";
        QTest::newRow("hold: a tap, then a press stops") << true << "down open +120 up +3000 down +80 up" << 2 << "idle";
        QTest::newRow("hold: a long stop press toggles once") << true << "down open +100 up +2000 down +900 up" << 2 << "idle";
        QTest::newRow("hold: released while the mic opens stops once it records")
            << true << "down +500 up open" << 2 << "idle";
        QTest::newRow("hold: tapped while the mic opens keeps recording") << true << "down +100 up open" << 1 << "recording";
        QTest::newRow("hold: start failed, release does not start again") << true << "down fail +600 up" << 1 << "error";
        QTest::newRow("hold: mic failed after release, nothing pending") << true << "down +600 up fail" << 1 << "error";
        QTest::newRow("hold: release without press") << true << "up up" << 0 << "idle";
        QTest::newRow("hold: press from error starts again") << true << "down fail +600 up +100 down open +700 up" << 3 << "idle";
    }

    void gestures()
    {
        QFETCH(bool, holdToTalk);
        QFETCH(QString, script);
        QFETCH(int, toggles);
        QFETCH(QString, phase);
        Session session;
        session.holdToTalk = holdToTalk;
        session.run(script);
        QCOMPARE(session.toggles, toggles);
        QCOMPARE(phaseName(session.state.phase().kind()), phase);
        QVERIFY(!session.gesture.isKeyDown() || script.endsWith("down"));
    }

    // The setting is read at release: switching it mid-hold takes effect.
    void settingIsReadAtRelease()
    {
        Session session;
        session.run("down open +600");
        session.holdToTalk = true;
        session.run("up");
        QCOMPARE(session.toggles, 2);
    }
};

QTEST_GUILESS_MAIN(TestShortcutGesture)
#include "tst_shortcut_gesture.moc"
