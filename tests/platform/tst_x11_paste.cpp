#include "ActivateWindow.h"
#include "X11TestSupport.h"
#include "platform/x11/X11ClipboardReadWatcher.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11WindowTracker.h"
#include "support/TestSupport.h"
#include "platform/Clipboard.h"
#include "text/paste/PasteService.h"

#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QWidget>
#include <QtTest>

using namespace dictora;
using dictora::test::x11::ChildProgram;
using dictora::test::x11::FakeKeyboard;

namespace {
QString readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}
} // namespace

// Pastes into real applications that nobody here wrote and reads back what
// they received: xterm (Shift+Insert, primary selection) and l3afpad, a GTK
// text editor (Ctrl+V, clipboard).
class TestX11Paste : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;
    FakeKeyboard keyboard;
    int fileCounter = 0;

    std::unique_ptr<ChildProgram> startTarget(const QString &kind, const QString &file, PasteService &service,
                                              PasteTarget *target)
    {
        std::unique_ptr<ChildProgram> program;
        if (kind == QLatin1String("xterm")) {
            // Non-canonical mode hands every pasted character to cat at once.
            program = std::make_unique<ChildProgram>(
                QStringLiteral("xterm"),
                QStringList{"-e", "sh", "-c", QStringLiteral("stty -icanon -echo; exec cat > '%1'").arg(file)});
        } else {
            QFile empty(file);
            if (!empty.open(QIODevice::WriteOnly))
                return nullptr;
            empty.close();
            program = std::make_unique<ChildProgram>(kind, QStringList{file});
        }
        if (!program->waitStarted())
            return nullptr;
        QDeadlineTimer deadline(20000);
        while (!deadline.hasExpired()) {
            if (auto captured = service.captureTarget(); captured && captured->application.processIdentifier == program->pid()) {
                *target = *captured;
                const bool ready = kind == QLatin1String("xterm") ? waitUntilTerminalTakesKeys(file)
                                                                  : waitUntilEditorTakesKeys(target->window.value);
                if (!ready)
                    return nullptr;
                return program;
            }
            QTest::qWait(20);
        }
        return nullptr;
    }

    // A freshly mapped editor can be the active window before its text view
    // listens for keys. Typing a character that marks the document modified
    // ("*" in the title) shows it does; it is erased before the paste.
    bool waitUntilEditorTakesKeys(quint64 window)
    {
        QDeadlineTimer deadline(20000);
        while (!keyboard.windowTitle(window).startsWith(u'*')) {
            if (deadline.hasExpired())
                return false;
            keyboard.chord({}, keyboard.keycode("x")); // keys typed too early are lost
            QTest::qWait(100);
        }
        keyboard.chord({"Control_L"}, keyboard.keycode("a"));
        keyboard.chord({}, keyboard.keycode("BackSpace"));
        return true;
    }

    // Same for the terminal: Ctrl+B reaches cat as byte 2, which the read
    // back ignores.
    bool waitUntilTerminalTakesKeys(const QString &file)
    {
        QDeadlineTimer deadline(20000);
        while (readFile(file).isEmpty()) {
            if (deadline.hasExpired())
                return false;
            keyboard.chord({"Control_L"}, keyboard.keycode("b"));
            QTest::qWait(100);
        }
        return true;
    }

    static QString received(const QString &file) { return readFile(file).remove(QChar(2)); }

    // xterm's cat writes as it reads; the editor writes when told to save,
    // which may come before the paste has been inserted, so save again until
    // the file shows it.
    bool readBack(const QString &kind, const QString &file, const QString &expected)
    {
        QDeadlineTimer deadline(20000);
        while (!deadline.hasExpired()) {
            if (kind != QLatin1String("xterm"))
                keyboard.chord({"Control_L"}, keyboard.keycode("s"));
            QTest::qWait(kind == QLatin1String("xterm") ? 20 : 250);
            if (received(file) == expected)
                return true;
        }
        qWarning() << "target file holds" << received(file);
        return false;
    }

    QStringList logLines(const QString &path) { return readFile(path).split(u'\n', Qt::SkipEmptyParts); }

    static bool hasLine(const QStringList &lines, const QString &message)
    {
        // Lines read "[<ISO 8601 time>] <message>".
        for (const QString &line : lines) {
            if (line.section(QStringLiteral("] "), 1) == message)
                return true;
        }
        return false;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QVERIFY(keyboard.isOpen());
        // The targets save what they received as UTF-8 only in a UTF-8 locale.
        qputenv("LC_ALL", "C.UTF-8");
        QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "run under with-x (QT_QPA_PLATFORM=xcb)");
    }

    void landsInARealApplication_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("moveFocusAway");
        QTest::addColumn<QString>("keystroke");

        QTest::newRow("xterm") << "xterm" << "hello from dictora" << false << "shift+insert";
        QTest::newRow("xterm, focus moved away") << "xterm" << "the target comes back" << true << "shift+insert";
        QTest::newRow("editor") << "l3afpad" << "Plain text, pasted." << false << "ctrl+v";
        QTest::newRow("editor, non-ASCII") << "l3afpad" << QString::fromUtf8("Grüße, naïve café — ✓ 東京") << false
                                           << "ctrl+v";
        QTest::newRow("editor, several lines") << "l3afpad" << "first line\nsecond line" << false << "ctrl+v";
        QTest::newRow("editor, focus moved away") << "l3afpad" << "focus came back" << true << "ctrl+v";
    }

    void landsInARealApplication()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
        QFETCH(bool, moveFocusAway);
        QFETCH(QString, keystroke);
        if (QStandardPaths::findExecutable(kind).isEmpty())
            DICTORA_RIG_MISSING(kind + QStringLiteral(" is not installed"));

        const QString logPath = dir.filePath(QStringLiteral("runtime-%1.log").arg(++fileCounter));
        const QString targetFile = dir.filePath(QStringLiteral("received-%1.txt").arg(fileCounter));
        RuntimeLog log(logPath);
        x11::X11WindowTracker windows;
        x11::X11KeystrokeSender keys;
        PasteService service(log, windows, keys, std::make_unique<QtClipboard>(std::make_unique<x11::X11ClipboardReadWatcher>()));
        QSignalSpy delivered(&service, &PasteService::delivered);

        PasteTarget target;
        auto program = startTarget(kind, targetFile, service, &target);
        QVERIFY2(program, qPrintable(kind + QStringLiteral(" never became the active window")));
        QCOMPARE(target.application.processIdentifier, program->pid());
        QVERIFY(!target.window.isNull());

        QGuiApplication::clipboard()->setText(QStringLiteral("what the user had copied before"));

        QWidget elsewhere;
        if (moveFocusAway) {
            elsewhere.setWindowTitle(QStringLiteral("somewhere else"));
            elsewhere.resize(300, 200);
            elsewhere.show();
            QVERIFY(QTest::qWaitForWindowExposed(&elsewhere));
            x11::X11WindowTracker tracker;
            QVERIFY(test::activateAndWait(tracker, WindowHandle{static_cast<quint64>(elsewhere.winId())}, 10000));
            QVERIFY(!tracker.isActive(target.window));
        }

        std::optional<qint64> milliseconds;
        service.paste(text, target, [&](qint64 ms) { milliseconds = ms; });
        QVERIFY(service.isPasting() || milliseconds);
        QTRY_VERIFY_WITH_TIMEOUT(milliseconds.has_value(), 10000);
        QVERIFY(*milliseconds >= 0);
        QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Clipboard), text);
        if (keystroke == QLatin1String("shift+insert"))
            QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Selection), text);

        QVERIFY2(readBack(kind, targetFile, text), qPrintable(logLines(logPath).join(u'\n')));
        QTRY_COMPARE_WITH_TIMEOUT(delivered.count(), 1, 10000);

        const QStringList lines = logLines(logPath);
        QVERIFY2(hasLine(lines, QStringLiteral("paste begin target=%1 chars=%2")
                                    .arg(target.application.name)
                                    .arg(text.size())),
                 qPrintable(lines.join(u'\n')));
        QVERIFY(hasLine(lines, QStringLiteral("pasteboard transcript installed")));
        QVERIFY(hasLine(lines, QStringLiteral("paste keystroke sent keystroke=") + keystroke));
        QVERIFY(hasLine(lines, QStringLiteral("command-v posted to pid=%1").arg(program->pid())));
        QCOMPARE(hasLine(lines, QStringLiteral("paste target reactivated ok=true")), moveFocusAway);
        QVERIFY(std::any_of(lines.begin(), lines.end(), [](const QString &line) {
            return line.contains(QStringLiteral("] paste delivered to target"));
        }));
        // The order a reader of the log relies on.
        QVERIFY(lines.indexOf(QRegularExpression(".*paste begin.*"))
                < lines.indexOf(QRegularExpression(".*command-v posted.*")));
        QVERIFY(lines.indexOf(QRegularExpression(".*command-v posted.*"))
                < lines.indexOf(QRegularExpression(".*paste delivered to target.*")));
    }

    void goneTargetNeverFails()
    {
        const QString logPath = dir.filePath(QStringLiteral("gone.log"));
        RuntimeLog log(logPath);
        x11::X11WindowTracker windows;
        x11::X11KeystrokeSender keys;
        PasteService service(log, windows, keys, std::make_unique<QtClipboard>(std::make_unique<x11::X11ClipboardReadWatcher>()));

        PasteTarget target;
        {
            auto program = startTarget(QStringLiteral("xterm"), dir.filePath(QStringLiteral("gone.txt")), service, &target);
            QVERIFY(program);
        }
        QWidget ours;
        ours.show();
        QVERIFY(QTest::qWaitForWindowExposed(&ours));
        x11::X11WindowTracker tracker;
        QVERIFY(test::activateAndWait(tracker, WindowHandle{static_cast<quint64>(ours.winId())}, 10000));

        bool dispatched = false;
        service.paste(QStringLiteral("nobody reads this"), target, [&](qint64) { dispatched = true; });
        QVERIFY(!dispatched); // the re-activation is waited for on timers, not in the call
        QTRY_VERIFY_WITH_TIMEOUT(dispatched, 5000);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("nobody reads this"));
        const QStringList lines = logLines(logPath);
        QVERIFY2(hasLine(lines, QStringLiteral("paste target reactivated ok=false")), qPrintable(lines.join(u'\n')));
        QVERIFY(hasLine(lines, QStringLiteral("command-v posted to pid=%1").arg(target.application.processIdentifier)));
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return dictora::test::rigMissing("needs an X display: run under tests/support/x11/with-x");
    QApplication app(argc, argv);
    TestX11Paste tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_x11_paste.moc"
