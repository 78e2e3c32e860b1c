#include "shortcut/KeyCodes.h"
#include "shortcut/ShortcutKeyLabel.h"

#include <QSet>
#include <QtTest>

using namespace dictora;

class KeyCodesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anchors_data();
    void anchors();
    void roundTrip();
    void coversUsLayout();
    void unknownCodes();
};

void KeyCodesTest::anchors_data()
{
    // Settings key codes (macOS ANSI virtual keys) against linux/input-event-codes.h.
    QTest::addColumn<qint64>("keyCode");
    QTest::addColumn<int>("evdev");
    QTest::newRow("grave") << qint64(50) << 41;
    QTest::newRow("V") << qint64(9) << 47;
    QTest::newRow("F5") << qint64(96) << 63;
    QTest::newRow("A") << qint64(0) << 30;
    QTest::newRow("Q") << qint64(12) << 16;
    QTest::newRow("Z") << qint64(6) << 44;
    QTest::newRow("K") << qint64(40) << 37;
    QTest::newRow("1") << qint64(18) << 2;
    QTest::newRow("5") << qint64(23) << 6;
    QTest::newRow("6") << qint64(22) << 7;
    QTest::newRow("0") << qint64(29) << 11;
    QTest::newRow("minus") << qint64(27) << 12;
    QTest::newRow("equal") << qint64(24) << 13;
    QTest::newRow("backslash") << qint64(42) << 43;
    QTest::newRow("slash") << qint64(44) << 53;
    QTest::newRow("quote") << qint64(39) << 40;
    QTest::newRow("Return is ENTER") << qint64(36) << 28;
    QTest::newRow("Delete is BACKSPACE") << qint64(51) << 14;
    QTest::newRow("Forward Delete is DELETE") << qint64(117) << 111;
    QTest::newRow("Esc") << qint64(53) << 1;
    QTest::newRow("Space") << qint64(49) << 57;
    QTest::newRow("Tab") << qint64(48) << 15;
    QTest::newRow("Page Up") << qint64(116) << 104;
    QTest::newRow("Page Down") << qint64(121) << 109;
    QTest::newRow("Home") << qint64(115) << 102;
    QTest::newRow("End") << qint64(119) << 107;
    QTest::newRow("Left") << qint64(123) << 105;
    QTest::newRow("Right") << qint64(124) << 106;
    QTest::newRow("Down") << qint64(125) << 108;
    QTest::newRow("Up") << qint64(126) << 103;
    QTest::newRow("F1") << qint64(122) << 59;
    QTest::newRow("F11") << qint64(103) << 87;
    QTest::newRow("F12") << qint64(111) << 88;
    QTest::newRow("F13") << qint64(105) << 183;
    QTest::newRow("F20") << qint64(90) << 190;
}

void KeyCodesTest::anchors()
{
    QFETCH(qint64, keyCode);
    QFETCH(int, evdev);
    QCOMPARE(KeyCodes::evdevFromKeyCode(keyCode), std::optional<int>(evdev));
    QCOMPARE(KeyCodes::keyCodeFromEvdev(evdev), std::optional<std::int64_t>(keyCode));
}

void KeyCodesTest::roundTrip()
{
    int mapped = 0;
    for (std::int64_t code = -1; code <= 300; ++code) {
        const auto evdev = KeyCodes::evdevFromKeyCode(code);
        if (!evdev)
            continue;
        ++mapped;
        QCOMPARE(KeyCodes::keyCodeFromEvdev(*evdev), std::optional<std::int64_t>(code));
    }
    int reverse = 0;
    for (int evdev = -1; evdev <= 800; ++evdev) {
        const auto code = KeyCodes::keyCodeFromEvdev(evdev);
        if (!code)
            continue;
        ++reverse;
        QCOMPARE(KeyCodes::evdevFromKeyCode(*code), std::optional<int>(evdev));
    }
    QCOMPARE(reverse, mapped); // a bijection: no two keys share a code
}

void KeyCodesTest::coversUsLayout()
{
    // Every key with a fixed label, plus every letter, digit and punctuation key.
    QList<std::int64_t> codes;
    for (std::int64_t code = 0; code < 256; ++code) {
        if (ShortcutKeyLabel::specialKeyLabel(code))
            codes.append(code);
    }
    QCOMPARE(codes.size(), 35);
    for (std::int64_t code = 0; code <= 51; ++code) // letters, digits and punctuation sit in 0…51
        codes.append(code);
    for (const std::int64_t code : codes)
        QVERIFY2(KeyCodes::evdevFromKeyCode(code).has_value(), qPrintable(QString::number(code)));
}

void KeyCodesTest::unknownCodes()
{
    QCOMPARE(KeyCodes::evdevFromKeyCode(-1), std::nullopt);
    QCOMPARE(KeyCodes::evdevFromKeyCode(1000), std::nullopt);
    QCOMPARE(KeyCodes::evdevFromKeyCode(55), std::nullopt); // Command itself is no shortcut key
    QCOMPARE(KeyCodes::keyCodeFromEvdev(0), std::nullopt);
    QCOMPARE(KeyCodes::keyCodeFromEvdev(42), std::nullopt); // left Shift
}

QTEST_GUILESS_MAIN(KeyCodesTest)
#include "tst_key_codes.moc"
