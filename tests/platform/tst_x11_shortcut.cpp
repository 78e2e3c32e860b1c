#include "X11TestSupport.h"
#include "platform/PermissionProbe.h"
#include "platform/services/PlatformServices.h"
#include "platform/x11/X11ShortcutBackend.h"

#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using dictora::test::x11::FakeKeyboard;
using dictora::test::x11::ForeignGrab;

namespace {
// A shortcut, its key's evdev code and the modifier keys that type it.
struct Chord {
    GlobalShortcut shortcut;
    int evdev = 0;
    QStringList modifierKeys;
    int keycode() const { return FakeKeyboard::keycodeFromEvdev(evdev); }
};
constexpr std::uint8_t kCtrlAlt = GlobalShortcutModifiers::control | GlobalShortcutModifiers::option;
const Chord kBacktick{{50, {0}, QStringLiteral("`")}, 41, {}}; // the key left of 1
const Chord kCtrlAltK{{40, {kCtrlAlt}, QStringLiteral("K")}, 37, {"Control_L", "Alt_L"}};
const Chord kSuperF5{{96, {GlobalShortcutModifiers::command}, QStringLiteral("F5")}, 63, {"Super_L"}};
constexpr unsigned int kX11CtrlAlt = (1u << 2) | (1u << 3);
} // namespace

class TestX11Shortcut : public QObject {
    Q_OBJECT

    FakeKeyboard keyboard;

    // The keyboard waits for the server after each event, and the backend's
    // round trip then collects whatever the server sent it before: no waiting
    // on time.
    static void settle(x11::X11ShortcutBackend &backend) { backend.processPendingEvents(); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(keyboard.isOpen()); }
    void cleanup() { keyboard.setLocks(false); }

    void firesOnlyForTheExactChord_data()
    {
        QTest::addColumn<Chord>("chord");
        QTest::addColumn<QStringList>("heldKeys");
        QTest::addColumn<bool>("locks"); // Caps Lock and Num Lock on
        QTest::addColumn<int>("expectedPresses");
        QTest::newRow("backtick") << kBacktick << QStringList{} << false << 1;
        QTest::newRow("backtick, both locks on") << kBacktick << QStringList{} << true << 1;
        QTest::newRow("backtick with shift held") << kBacktick << QStringList{"Shift_L"} << false << 0;
        QTest::newRow("ctrl+alt+k") << kCtrlAltK << kCtrlAltK.modifierKeys << false << 1;
        QTest::newRow("ctrl+alt+k, both locks on") << kCtrlAltK << kCtrlAltK.modifierKeys << true << 1;
        QTest::newRow("ctrl+alt+k with extra shift") << kCtrlAltK << QStringList{"Control_L", "Alt_L", "Shift_L"} << false << 0;
        QTest::newRow("ctrl+alt+k missing alt") << kCtrlAltK << QStringList{"Control_L"} << false << 0;
        QTest::newRow("super+f5") << kSuperF5 << kSuperF5.modifierKeys << false << 1;
        QTest::newRow("super+f5 with alt instead") << kSuperF5 << QStringList{"Alt_L"} << false << 0;
    }

    void firesOnlyForTheExactChord()
    {
        QFETCH(Chord, chord);
        QFETCH(QStringList, heldKeys);
        QFETCH(bool, locks);
        QFETCH(int, expectedPresses);
        x11::X11ShortcutBackend backend;
        QVERIFY2(backend.install(chord.shortcut), qPrintable(backend.failureReason()));
        QVERIFY(backend.verifyInstalled(chord.shortcut));
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);

        keyboard.setLocks(locks);
        keyboard.chord(heldKeys, chord.keycode());
        settle(backend);
        QCOMPARE(spy.count(), expectedPresses);

        // The chord still works afterwards, whatever happened before.
        keyboard.setLocks(false);
        keyboard.chord(chord.modifierKeys, chord.keycode());
        settle(backend);
        QCOMPARE(spy.count(), expectedPresses + 1);
    }

    void heldKeyFiresOnce_data()
    {
        QTest::addColumn<int>("repeats");
        QTest::newRow("released before repeating") << 0;
        QTest::newRow("several repeats") << 6;
    }

    void heldKeyFiresOnce()
    {
        QFETCH(int, repeats);
        x11::X11ShortcutBackend backend;
        QVERIFY(backend.install(kBacktick.shortcut));
        QList<bool> order; // true: a press
        connect(&backend, &ShortcutBackend::pressed, this, [&] { order << true; });
        connect(&backend, &ShortcutBackend::released, this, [&] { order << false; });

        // The server's own auto-repeat: hold the key until it has repeated.
        keyboard.press(kBacktick.keycode());
        QTRY_VERIFY_WITH_TIMEOUT((backend.processPendingEvents(), backend.ignoredRepeats() >= repeats), 30000);
        QCOMPARE(order, QList<bool>{true}); // held, however long it repeats
        keyboard.release(kBacktick.keycode());
        settle(backend);
        QCOMPARE(order, (QList<bool>{true, false}));

        // A quick tap read in one go keeps its order.
        keyboard.chord({}, kBacktick.keycode());
        settle(backend);
        QCOMPARE(order, (QList<bool>{true, false, true, false}));
    }

    void keyOwnedByAnotherProgramFailsWithReason()
    {
        x11::X11ShortcutBackend backend;
        {
            ForeignGrab other(kCtrlAltK.keycode(), kX11CtrlAlt);
            QVERIFY(other.isHeld());
            QVERIFY(!backend.install(kCtrlAltK.shortcut));
            QVERIFY(!backend.verifyInstalled(kCtrlAltK.shortcut));
            QVERIFY2(backend.failureReason().contains(QStringLiteral("Another program")), qPrintable(backend.failureReason()));
            QVERIFY(backend.failureReason().contains(QStringLiteral("Ctrl+Alt+K")));

            const PermissionCheck check = Platform::createPermissionProbe()->accessibility(&backend);
            QVERIFY(!check.authorized);
            QCOMPARE(check.reason, backend.failureReason());
        }
        // Once the other program lets go, the same install works.
        QVERIFY2(backend.install(kCtrlAltK.shortcut), qPrintable(backend.failureReason()));
        QVERIFY(backend.failureReason().isEmpty());
        QVERIFY(Platform::createPermissionProbe()->accessibility(&backend).authorized);
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);
        keyboard.chord(kCtrlAltK.modifierKeys, kCtrlAltK.keycode());
        settle(backend);
        QCOMPARE(spy.count(), 1);
    }

    void failedChangeLeavesNothingGrabbed()
    {
        // A refused grab must not leave half of its lock variants behind:
        // they would swallow the key while NumLock is on.
        x11::X11ShortcutBackend backend;
        {
            ForeignGrab other(kBacktick.keycode(), 0);
            QVERIFY(!backend.install(kBacktick.shortcut));
        }
        ForeignGrab numLockVariant(kBacktick.keycode(), 1u << keyboard.numLockModifierIndex());
        QVERIFY(numLockVariant.isHeld());
        QVERIFY(!x11::X11ShortcutBackend().install(kBacktick.shortcut)); // the foreign variant is still refused
    }

    void unknownKeyFailsWithReason()
    {
        x11::X11ShortcutBackend backend;
        QVERIFY(!backend.install({9999, {0}, QStringLiteral("Key 9999")}));
        QVERIFY(!backend.failureReason().isEmpty());
        QVERIFY(!backend.install({40, {0x10}, QStringLiteral("K")}));
        QVERIFY(!backend.failureReason().isEmpty());
    }

    void installVerifyUninstall()
    {
        x11::X11ShortcutBackend backend;
        const GlobalShortcut first = kBacktick.shortcut;
        const GlobalShortcut second = kSuperF5.shortcut;
        QVERIFY(backend.install(first));
        QVERIFY(backend.install(first)); // already active: nothing rebuilt
        QVERIFY(backend.verifyInstalled(first));
        QVERIFY(!backend.verifyInstalled(second));
        QVERIFY(!backend.verifyInstalled({first.keyCode, first.modifiers, QStringLiteral("\u00B2")}));

        QVERIFY(backend.install(second));
        QVERIFY(backend.verifyInstalled(second));
        QVERIFY(!backend.verifyInstalled(first));
        QVERIFY(ForeignGrab(kBacktick.keycode(), 0).isHeld()); // the old chord is free again
        backend.uninstall();
        backend.uninstall();
        QVERIFY(!backend.verifyInstalled(second));
        x11::X11ShortcutBackend other;
        QVERIFY(other.install(second));
    }

    void grabsFollowAModifierMappingChange()
    {
        const int originalIndex = keyboard.numLockModifierIndex();
        if (originalIndex < 0)
            QSKIP("this keymap has no Num_Lock key");
        x11::X11ShortcutBackend backend;
        QVERIFY(backend.install(kBacktick.shortcut));
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);

        QVERIFY(keyboard.moveNumLockTo(originalIndex == 5 ? 4 : 5)); // Mod3 unless that is already it
        auto restore = qScopeGuard([&] { keyboard.moveNumLockTo(originalIndex); });
        settle(backend); // sees the mapping change and grabs again
        QVERIFY(backend.verifyInstalled(kBacktick.shortcut));

        keyboard.setLocks(true);
        keyboard.chord({}, kBacktick.keycode());
        settle(backend);
        QCOMPARE(spy.count(), 1);
    }
};

int main(int argc, char **argv) { return dictora::test::x11::testMain<TestX11Shortcut>(argc, argv); }

#include "tst_x11_shortcut.moc"
