#include "X11TestSupport.h"
#include "platform/PermissionProbe.h"
#include "platform/services/PlatformServices.h"
#include "platform/x11/X11ShortcutBackend.h"
#include "support/TestSupport.h"

#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using dictora::test::x11::FakeKeyboard;
using dictora::test::x11::ForeignGrab;

namespace {
constexpr int kGraveEvdev = 41; // the key left of 1
constexpr qint64 kBacktick = 50;
constexpr qint64 kKeyK = 40;
constexpr int kKEvdev = 37;
constexpr qint64 kKeyF5 = 96;
constexpr int kF5Evdev = 63;
constexpr unsigned int kX11Control = 1u << 2;
constexpr unsigned int kX11Alt = 1u << 3;

GlobalShortcut shortcut(std::int64_t keyCode, std::uint8_t modifiers, const QString &label)
{
    return GlobalShortcut{keyCode, GlobalShortcutModifiers{modifiers}, label};
}

QStringList modifierKeysFor(std::uint8_t modifiers)
{
    QStringList keys;
    if (modifiers & GlobalShortcutModifiers::control)
        keys << QStringLiteral("Control_L");
    if (modifiers & GlobalShortcutModifiers::option)
        keys << QStringLiteral("Alt_L");
    if (modifiers & GlobalShortcutModifiers::shift)
        keys << QStringLiteral("Shift_L");
    if (modifiers & GlobalShortcutModifiers::command)
        keys << QStringLiteral("Super_L");
    return keys;
}
} // namespace

class TestX11Shortcut : public QObject {
    Q_OBJECT

private:
    FakeKeyboard keyboard;

    // The keyboard waits for the server after each event, and the backend's
    // round trip then collects whatever the server sent it before: no waiting
    // on time.
    static void settle(x11::X11ShortcutBackend &backend) { backend.processPendingEvents(); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(keyboard.isOpen());
    }

    void cleanup()
    {
        keyboard.setCapsLock(false);
        keyboard.setNumLock(false);
    }

    void firesOnlyForTheExactChord_data()
    {
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<int>("evdev");
        QTest::addColumn<QStringList>("heldKeys");
        QTest::addColumn<bool>("capsLock");
        QTest::addColumn<bool>("numLock");
        QTest::addColumn<int>("expectedPresses");

        const int none = 0;
        const int ctrlAlt = GlobalShortcutModifiers::control | GlobalShortcutModifiers::option;
        const int super = GlobalShortcutModifiers::command;
        const QStringList noKeys;
        const QStringList ctrlAltKeys{"Control_L", "Alt_L"};

        QTest::newRow("backtick") << kBacktick << none << kGraveEvdev << noKeys << false << false << 1;
        QTest::newRow("backtick, both locks on") << kBacktick << none << kGraveEvdev << noKeys << true << true << 1;
        QTest::newRow("backtick with shift held") << kBacktick << none << kGraveEvdev << QStringList{"Shift_L"} << false << false << 0;
        QTest::newRow("ctrl+alt+k") << kKeyK << ctrlAlt << kKEvdev << ctrlAltKeys << false << false << 1;
        QTest::newRow("ctrl+alt+k, both locks on") << kKeyK << ctrlAlt << kKEvdev << ctrlAltKeys << true << true << 1;
        QTest::newRow("ctrl+alt+k with extra shift") << kKeyK << ctrlAlt << kKEvdev << QStringList{"Control_L", "Alt_L", "Shift_L"} << false << false << 0;
        QTest::newRow("ctrl+alt+k missing alt") << kKeyK << ctrlAlt << kKEvdev << QStringList{"Control_L"} << false << false << 0;
        QTest::newRow("super+f5") << kKeyF5 << super << kF5Evdev << QStringList{"Super_L"} << false << false << 1;
        QTest::newRow("super+f5 with alt instead") << kKeyF5 << super << kF5Evdev << QStringList{"Alt_L"} << false << false << 0;
    }

    void firesOnlyForTheExactChord()
    {
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(int, evdev);
        QFETCH(QStringList, heldKeys);
        QFETCH(bool, capsLock);
        QFETCH(bool, numLock);
        QFETCH(int, expectedPresses);

        x11::X11ShortcutBackend backend;
        const GlobalShortcut chord = shortcut(keyCode, static_cast<std::uint8_t>(modifiers), QStringLiteral("K"));
        QVERIFY2(backend.install(chord), qPrintable(backend.failureReason()));
        QVERIFY(backend.verifyInstalled(chord));
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);

        keyboard.setCapsLock(capsLock);
        keyboard.setNumLock(numLock);
        keyboard.chord(heldKeys, FakeKeyboard::keycodeFromEvdev(evdev));
        settle(backend);
        QCOMPARE(spy.count(), expectedPresses);

        // The chord still works afterwards, whatever happened before.
        keyboard.setCapsLock(false);
        keyboard.setNumLock(false);
        keyboard.chord(modifierKeysFor(chord.modifiers.rawValue), FakeKeyboard::keycodeFromEvdev(evdev));
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
        const GlobalShortcut chord = GlobalShortcut::defaultShortcut();
        QVERIFY(backend.install(chord));
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);
        QSignalSpy releases(&backend, &ShortcutBackend::released);
        QList<bool> order; // true: a press
        connect(&backend, &ShortcutBackend::pressed, this, [&] { order << true; });
        connect(&backend, &ShortcutBackend::released, this, [&] { order << false; });

        // The server's own auto-repeat: hold the key until it has repeated.
        const int key = FakeKeyboard::keycodeFromEvdev(kGraveEvdev);
        keyboard.press(key);
        QTRY_VERIFY_WITH_TIMEOUT((backend.processPendingEvents(), backend.ignoredRepeats() >= repeats), 30000);
        QCOMPARE(releases.count(), 0); // held, however long it repeats
        keyboard.release(key);
        settle(backend);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(releases.count(), 1);

        // A quick tap read in one go keeps its order.
        keyboard.chord({}, key);
        settle(backend);
        QCOMPARE(spy.count(), 2);
        QCOMPARE(order, (QList<bool>{true, false, true, false}));
    }

    void keyOwnedByAnotherProgramFailsWithReason()
    {
        const GlobalShortcut chord = shortcut(kKeyK, GlobalShortcutModifiers::control | GlobalShortcutModifiers::option,
                                              QStringLiteral("K"));
        x11::X11ShortcutBackend backend;
        {
            ForeignGrab other(FakeKeyboard::keycodeFromEvdev(kKEvdev), kX11Control | kX11Alt);
            QVERIFY(other.isHeld());
            QVERIFY(!backend.install(chord));
            QVERIFY(!backend.verifyInstalled(chord));
            QVERIFY2(backend.failureReason().contains(QStringLiteral("Another program")),
                     qPrintable(backend.failureReason()));
            QVERIFY(backend.failureReason().contains(QStringLiteral("Ctrl+Alt+K")));

            const PermissionCheck check = Platform::createPermissionProbe()->accessibility(&backend);
            QVERIFY(!check.authorized);
            QCOMPARE(check.reason, backend.failureReason());
        }
        // Once the other program lets go, the same install works.
        QVERIFY2(backend.install(chord), qPrintable(backend.failureReason()));
        QVERIFY(backend.failureReason().isEmpty());
        QVERIFY(Platform::createPermissionProbe()->accessibility(&backend).authorized);
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);
        keyboard.chord({"Control_L", "Alt_L"}, FakeKeyboard::keycodeFromEvdev(kKEvdev));
        settle(backend);
        QCOMPARE(spy.count(), 1);
    }

    void failedChangeLeavesNothingGrabbed()
    {
        // A refused grab must not leave half of its lock variants behind:
        // they would swallow the key while NumLock is on.
        const GlobalShortcut chord = GlobalShortcut::defaultShortcut();
        x11::X11ShortcutBackend backend;
        {
            ForeignGrab other(FakeKeyboard::keycodeFromEvdev(kGraveEvdev), 0);
            QVERIFY(!backend.install(chord));
        }
        ForeignGrab numLockVariantCheck(FakeKeyboard::keycodeFromEvdev(kGraveEvdev),
                                        1u << keyboard.numLockModifierIndex());
        QVERIFY(numLockVariantCheck.isHeld());
        x11::X11ShortcutBackend second;
        QVERIFY(!second.install(chord)); // the foreign NumLock variant is still refused
    }

    void unknownKeyFailsWithReason()
    {
        x11::X11ShortcutBackend backend;
        QVERIFY(!backend.install(shortcut(9999, 0, QStringLiteral("Key 9999"))));
        QVERIFY(!backend.failureReason().isEmpty());
        QVERIFY(!backend.install(shortcut(kKeyK, 0x10, QStringLiteral("K"))));
        QVERIFY(!backend.failureReason().isEmpty());
    }

    void installVerifyUninstall()
    {
        x11::X11ShortcutBackend backend;
        const GlobalShortcut first = GlobalShortcut::defaultShortcut();
        const GlobalShortcut second = shortcut(kKeyF5, GlobalShortcutModifiers::command, QStringLiteral("F5"));
        QVERIFY(backend.install(first));
        QVERIFY(backend.install(first)); // already active: nothing rebuilt
        QVERIFY(backend.verifyInstalled(first));
        QVERIFY(!backend.verifyInstalled(second));
        GlobalShortcut relabelled = first;
        relabelled.keyLabel = QStringLiteral("\u00B2");
        QVERIFY(!backend.verifyInstalled(relabelled));

        QVERIFY(backend.install(second));
        QVERIFY(backend.verifyInstalled(second));
        QVERIFY(!backend.verifyInstalled(first));
        // The old chord is free again: another program can take it.
        {
            ForeignGrab other(FakeKeyboard::keycodeFromEvdev(kGraveEvdev), 0);
            x11::X11ShortcutBackend probe;
            QVERIFY(!probe.install(first));
        }
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
        const int newIndex = originalIndex == 5 ? 4 : 5; // Mod3 unless that is already it
        x11::X11ShortcutBackend backend;
        const GlobalShortcut chord = GlobalShortcut::defaultShortcut();
        QVERIFY(backend.install(chord));
        QSignalSpy spy(&backend, &ShortcutBackend::pressed);

        QVERIFY(keyboard.moveNumLockTo(newIndex));
        auto restore = qScopeGuard([&] { keyboard.moveNumLockTo(originalIndex); });
        settle(backend); // sees the mapping change and grabs again
        QVERIFY(backend.verifyInstalled(chord));

        keyboard.setNumLock(true);
        keyboard.chord({}, FakeKeyboard::keycodeFromEvdev(kGraveEvdev));
        settle(backend);
        QCOMPARE(spy.count(), 1);
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return dictora::test::rigMissing("needs an X display: run under tests/support/x11/with-x");
    QCoreApplication app(argc, argv);
    TestX11Shortcut tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_x11_shortcut.moc"
