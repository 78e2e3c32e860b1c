#include "shortcut/KeyCodes.h"
#include "shortcut/ShortcutKeyLabel.h"

#include <QSet>
#include <QtTest>

using namespace dictora;

class KeyCodesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTrip()
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

    void coversUsLayout()
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

    void unknownCodes()
    {
        QCOMPARE(KeyCodes::evdevFromKeyCode(-1), std::nullopt);
        QCOMPARE(KeyCodes::evdevFromKeyCode(1000), std::nullopt);
        QCOMPARE(KeyCodes::evdevFromKeyCode(55), std::nullopt); // Command itself is no shortcut key
        QCOMPARE(KeyCodes::keyCodeFromEvdev(0), std::nullopt);
        QCOMPARE(KeyCodes::keyCodeFromEvdev(42), std::nullopt); // left Shift
    }
};

QTEST_GUILESS_MAIN(KeyCodesTest)
#include "tst_key_codes.moc"
