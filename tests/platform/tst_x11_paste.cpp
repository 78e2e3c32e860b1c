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
using dictora::test::x11::FakeKeyboard;

// Pastes into real applications that nobody here wrote and reads back what
// they received: xterm (Shift+Insert, primary selection) and l3afpad, a GTK
// text editor (Ctrl+V, clipboard).
class TestX11Paste : public QObject {
    Q_OBJECT

private:
    QTemporaryDir dir;
    FakeKeyboard keyboard;
    int fileCounter = 0;

    // The application's window made the target, as a dictation would capture it.
    static bool captureTarget(PasteService &service, qint64 pid, PasteTarget *target)
    {
        return QTest::qWaitFor([&] {
            const auto captured = service.captureTarget();
            if (captured && captured->application.processIdentifier == pid)
                *target = *captured;
            return captured && captured->application.processIdentifier == pid;
        }, 10000);
    }

    QStringList logLines(const QString &path) { return test::logMessages(QString::fromUtf8(test::readFile(path))); }

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
        QTest::addColumn<QString>("keystroke");
        // Focus moved away before the paste: tst_e2e_paste.
        QTest::newRow("xterm") << "xterm" << "hello from dictora" << "shift+insert";
        QTest::newRow("editor, non-ASCII, several lines")
            << "l3afpad" << QString::fromUtf8("Grüße, naïve café — ✓ 東京\nsecond line") << "ctrl+v";
    }

    void landsInARealApplication()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
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

        QString why;
        test::x11::TextEditor editor(keyboard, targetFile);
        test::x11::Terminal terminal(keyboard, targetFile);
        const bool isTerminal = kind == QLatin1String("xterm");
        QVERIFY2(isTerminal ? terminal.start(&why) : editor.start(&why), qPrintable(why));
        const qint64 pid = isTerminal ? terminal.pid() : editor.pid();
        PasteTarget target;
        QVERIFY(captureTarget(service, pid, &target));
        QVERIFY(!target.window.isNull());

        QGuiApplication::clipboard()->setText(QStringLiteral("what the user had copied before"));

        std::optional<qint64> milliseconds;
        service.paste(text, target, [&](qint64 ms) { milliseconds = ms; });
        QVERIFY(service.isPasting() || milliseconds);
        QTRY_VERIFY_WITH_TIMEOUT(milliseconds.has_value(), 10000);
        QVERIFY(*milliseconds >= 0);
        QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Clipboard), text);
        if (keystroke == QLatin1String("shift+insert"))
            QCOMPARE(QGuiApplication::clipboard()->text(QClipboard::Selection), text);

        QString received;
        const bool arrived = isTerminal ? terminal.waitFor(text, 20000) : editor.readBack(text, &received);
        QVERIFY2(arrived, qPrintable(QStringLiteral("the target holds \"%1\"; log:\n%2")
                                         .arg(isTerminal ? terminal.received() : received, logLines(logPath).join(u'\n'))));
        QTRY_COMPARE_WITH_TIMEOUT(delivered.count(), 1, 10000);

        const QStringList lines = logLines(logPath);
        // In the order a reader of the log relies on.
        const QString expectedLines[] = {
            QStringLiteral("paste begin target=%1 chars=%2").arg(target.application.name).arg(text.size()),
            QStringLiteral("pasteboard transcript installed"), QStringLiteral("paste keystroke sent keystroke=") + keystroke,
            QStringLiteral("command-v posted to pid=%1").arg(pid), QStringLiteral("paste delivered to target")};
        qsizetype at = 0;
        for (const QString &expected : expectedLines) {
            while (at < lines.size() && !lines.at(at).startsWith(expected))
                ++at;
            QVERIFY2(at < lines.size(), qPrintable(expected + QStringLiteral(" missing or out of order:\n") + lines.join(u'\n')));
        }
        QVERIFY(lines.filter(QStringLiteral("reactivated")).isEmpty()); // still focused: nothing to bring back
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
            QString why;
            test::x11::Terminal terminal(keyboard, dir.filePath(QStringLiteral("gone.txt")));
            QVERIFY2(terminal.start(&why), qPrintable(why));
            QVERIFY(captureTarget(service, terminal.pid(), &target));
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
        QVERIFY2(lines.contains(QStringLiteral("paste target reactivated ok=false")), qPrintable(lines.join(u'\n')));
        QVERIFY(lines.contains(QStringLiteral("command-v posted to pid=%1").arg(target.application.processIdentifier)));
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
