#include "shortcut/GlobalShortcut.h"
#include "shortcut/KeyCodes.h"
#include "shortcut/ShortcutKeyLabel.h"

#include <QtTest>

using namespace dictora;

namespace {
const QString kBacktick = QString(QChar(0x60));
const QString kTwoModifiers = QStringLiteral("Use at least two modifier keys so normal typing stays untouched.");
const QString kNoKey = QStringLiteral("Press a letter, number, punctuation key, or function key.");
const QString kNoPrimary = QStringLiteral("Include Command, Control, or Option in the shortcut.");
constexpr int kCommand = GlobalShortcutModifiers::command;
constexpr int kControl = GlobalShortcutModifiers::control;
constexpr int kOption = GlobalShortcutModifiers::option;
constexpr int kShift = GlobalShortcutModifiers::shift;

GlobalShortcut shortcut(qint64 keyCode, int raw, const QString &label)
{
    return GlobalShortcut{keyCode, {static_cast<std::uint8_t>(raw)}, label};
}
} // namespace

class GlobalShortcutTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void validate_data()
    {
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("message"); // empty: valid

        QTest::newRow("default") << qint64(50) << 0 << kBacktick << QString();
        QTest::newRow("command backtick") << qint64(50) << kCommand << kBacktick << kTwoModifiers;
        QTest::newRow("backtick label on another key") << qint64(10) << 0 << kBacktick << kTwoModifiers;
        QTest::newRow("control option K") << qint64(40) << (kControl | kOption) << "K" << QString();
        QTest::newRow("shift K") << qint64(40) << kShift << "K" << kTwoModifiers;
        QTest::newRow("bare K") << qint64(40) << 0 << "K" << kTwoModifiers;
        QTest::newRow("shift and unnamed bit") << qint64(40) << 24 << "K" << kNoPrimary;
        QTest::newRow("one unnamed bit") << qint64(40) << 128 << "K" << kTwoModifiers;
        QTest::newRow("command and unnamed bit") << qint64(40) << (kCommand | 64) << "K" << QString();
        QTest::newRow("empty label, four modifiers") << qint64(40) << 15 << "" << kNoKey;
        QTest::newRow("blank label is not empty") << qint64(49) << (kControl | kShift) << " " << QString();
        QTest::newRow("shift command F5") << qint64(96) << (kShift | kCommand) << "F5" << QString();
    }

    void validate()
    {
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(QString, label);
        QFETCH(QString, message);
        const GlobalShortcutValidation result = GlobalShortcutValidator::validate(shortcut(keyCode, modifiers, label));
        QCOMPARE(result.valid, message.isEmpty());
        QCOMPARE(result.message, message);
    }

    void label_data()
    {
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<bool>("hasCharacters");
        QTest::addColumn<QString>("characters");
        QTest::addColumn<QString>("expected");

        QTest::newRow("space bar wins over blank") << qint64(49) << true << " " << "Space";
        QTest::newRow("letter") << qint64(0) << true << "a" << "A";
        QTest::newRow("two blanks") << qint64(0) << true << "  " << "Key 0";
        QTest::newRow("no characters") << qint64(102) << false << "" << "Key 102";
        QTest::newRow("table wins over characters") << qint64(96) << true << "x" << "F5";
        QTest::newRow("accented letter") << qint64(33) << true << QString::fromUtf8("é") << QString::fromUtf8("É");
        QTest::newRow("sharp s") << qint64(27) << true << QString::fromUtf8("ß") << "SS";
        QTest::newRow("trimmed") << qint64(41) << true << "\t;\n" << ";";
        QTest::newRow("backtick") << qint64(50) << true << QString::fromUtf8("§") << kBacktick;

        // The whole table's size is checked against the key codes in coversUsLayout.
        const QList<QPair<qint64, QString>> special{{36, "Return"}, {117, "Forward Delete"},
            {123, QString::fromUtf8("←")}, {122, "F1"}, {111, "F12"}, {90, "F20"}};
        for (const auto &[code, name] : special)
            QTest::addRow("special %lld", static_cast<long long>(code)) << code << false << QString() << name;
    }

    void label()
    {
        QFETCH(qint64, keyCode);
        QFETCH(bool, hasCharacters);
        QFETCH(QString, characters);
        QFETCH(QString, expected);
        const std::optional<QString> chars = hasCharacters ? std::optional<QString>(characters) : std::nullopt;
        QCOMPARE(ShortcutKeyLabel::label(keyCode, chars), expected);
    }

    void displayText_data()
    {
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("prefix");

        QTest::newRow("none") << 0 << kBacktick << "";
        QTest::newRow("all four, not bit order") << 15 << "K" << "Ctrl+Alt+Shift+Super+";
        QTest::newRow("unnamed bits show nothing") << (kShift | 16 | 128) << "K" << "Shift+";
    }

    void displayText()
    {
        QFETCH(int, modifiers);
        QFETCH(QString, label);
        QFETCH(QString, prefix);
        const GlobalShortcut s = shortcut(40, modifiers, label);
        QCOMPARE(s.modifiers.displayPrefix(), prefix);
        QCOMPARE(s.displayText(), prefix + label);
    }

    void fromQt_data()
    {
        QTest::addColumn<int>("qtModifiers");
        QTest::addColumn<int>("raw");
        // Ctrl+Alt and Meta alone are recorded in tst_shortcut_settings_view.
        QTest::newRow("keypad and group ignored")
            << int(Qt::ControlModifier | Qt::KeypadModifier | Qt::GroupSwitchModifier) << kControl;
        QTest::newRow("all") << int(Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier | Qt::MetaModifier) << 15;
    }

    void fromQt()
    {
        QFETCH(int, qtModifiers);
        QFETCH(int, raw);
        QCOMPARE(int(GlobalShortcutModifiers::fromQt(Qt::KeyboardModifiers(qtModifiers)).rawValue), raw);
    }

    void load_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("label");

        const GlobalShortcut fallback = GlobalShortcut::defaultShortcut();
        const auto defaults = [&](const char *name, const QByteArray &stored) {
            QTest::newRow(name) << stored << qint64(fallback.keyCode) << int(fallback.modifiers.rawValue) << fallback.keyLabel;
        };
        QTest::newRow("control option K") << QByteArray(R"({"keyCode":40,"modifiers":6,"keyLabel":"K"})") << qint64(40) << 6 << "K";
        QTest::newRow("any key order, extra keys")
            << QByteArray(R"({"keyLabel":"F5","extra":[1],"modifiers":9,"keyCode":96})") << qint64(96) << 9 << "F5";
        QTest::newRow("escaped label") << QByteArray(R"({"keyCode":42,"modifiers":6,"keyLabel":"\\"})") << qint64(42) << 6 << "\\";
        QTest::newRow("unnamed bits survive") << QByteArray(R"({"keyCode":40,"modifiers":255,"keyLabel":"K"})") << qint64(40) << 255 << "K";
        defaults("nothing stored", QByteArray());
        defaults("modifiers 300", R"({"keyCode":40,"modifiers":300,"keyLabel":"K"})");
        defaults("fractional key code", R"({"keyCode":40.5,"modifiers":6,"keyLabel":"K"})");
        defaults("no label", R"({"keyCode":40,"modifiers":6})");
        defaults("key code as string", R"({"keyCode":"40","modifiers":6,"keyLabel":"K"})");
        defaults("command K is invalid", R"({"keyCode":40,"modifiers":1,"keyLabel":"K"})");
        defaults("empty label is invalid", R"({"keyCode":40,"modifiers":6,"keyLabel":""})");
        defaults("garbage", "not json at all");
    }

    void load()
    {
        QFETCH(QByteArray, stored);
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(QString, label);
        QCOMPARE(GlobalShortcut::loadOrDefault(stored), shortcut(keyCode, modifiers, label));
    }

    void jsonRoundTrip_data()
    {
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("label");
        QTest::newRow("default") << qint64(50) << 0 << kBacktick;
        QTest::newRow("quote and backslash label") << qint64(39) << 6 << "\"\\";
        QTest::newRow("large key code") << (qint64(1) << 40) << 6 << "X";
        QTest::newRow("negative key code") << qint64(-7) << 6 << "X";
    }

    void jsonRoundTrip()
    {
        QFETCH(qint64, keyCode);
        QFETCH(int, modifiers);
        QFETCH(QString, label);
        const GlobalShortcut s = shortcut(keyCode, modifiers, label);
        const QByteArray json = s.toJson();
        QCOMPARE(GlobalShortcut::fromJson(json), std::optional<GlobalShortcut>(s));
        // Writers keep the documented key order.
        QVERIFY(json.indexOf("\"keyCode\"") < json.indexOf("\"modifiers\""));
        QVERIFY(json.indexOf("\"modifiers\"") < json.indexOf("\"keyLabel\""));
    }

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

QTEST_GUILESS_MAIN(GlobalShortcutTest)
#include "tst_global_shortcut.moc"
