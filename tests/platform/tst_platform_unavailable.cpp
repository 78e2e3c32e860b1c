#include "platform/services/PlatformServices.h"
#include "support/TestSupport.h"
#include "text/paste/PasteService.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

// Without a reachable X display every backend must still be usable: it
// fails with a reason for the user and never ends the process.
class TestPlatformUnavailable : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QFETCH_GLOBAL(QString, display);
        if (display.isNull())
            qunsetenv("DISPLAY");
        else
            qputenv("DISPLAY", display.toLocal8Bit());
    }

    void initTestCase_data()
    {
        QTest::addColumn<QString>("display");
        QTest::addColumn<QString>("reasonMentions");
        QTest::newRow("DISPLAY unset") << QString() << "DISPLAY";
        QTest::newRow("no server on that display") << ":4711" << ":4711";
    }

    void shortcutFailsWithReason()
    {
        QFETCH_GLOBAL(QString, reasonMentions);
        auto backend = Platform::createShortcutBackend();
        QVERIFY(!backend->install(GlobalShortcut::defaultShortcut()));
        QVERIFY(!backend->verifyInstalled(GlobalShortcut::defaultShortcut()));
        QVERIFY2(backend->failureReason().contains(reasonMentions), qPrintable(backend->failureReason()));
        backend->uninstall();
    }

    void permissionNeedsAttention()
    {
        QFETCH_GLOBAL(QString, reasonMentions);
        const PermissionCheck check = Platform::createPermissionProbe()->accessibility(nullptr);
        QVERIFY(!check.authorized);
        QVERIFY2(check.reason.contains(reasonMentions), qPrintable(check.reason));
    }

    void trackerAndKeystrokesDegrade()
    {
        QFETCH_GLOBAL(QString, reasonMentions);
        auto tracker = Platform::createWindowTracker();
        QVERIFY(!tracker->frontmostWindow().has_value());
        QVERIFY(!tracker->frontmostOtherApplication().has_value());
        tracker->requestActivation(WindowHandle{42});
        QVERIFY(!tracker->isActive(WindowHandle{42}));
        auto keys = Platform::createKeystrokeSender();
        QVERIFY(!keys->anyKeyHeld());
        QVERIFY(!keys->send(PasteKeystroke::controlV));
        QVERIFY(keys->failureReason().contains(reasonMentions));
    }

    void pasteStillLogsAndReturns()
    {
        QTemporaryDir dir;
        RuntimeLog log(dir.filePath(QStringLiteral("runtime.log")));
        auto tracker = Platform::createWindowTracker();
        auto keys = Platform::createKeystrokeSender();
        PasteService service(log, *tracker, *keys, Platform::createClipboard());
        QVERIFY(!service.captureTarget().has_value());
        const PasteTarget target{TargetApplication{QStringLiteral("Editor"), QStringLiteral("Mousepad"), 1234}, WindowHandle{0x400003}};
        std::optional<qint64> dispatched;
        service.paste(QStringLiteral("text"), target, [&](qint64 ms) { dispatched = ms; });
        // The window never becomes active: the sequence gives up after its bound.
        QTRY_VERIFY_WITH_TIMEOUT(dispatched.has_value(), 5000);
        QVERIFY(*dispatched >= 0);
        const QStringList lines = test::logMessages(QString::fromUtf8(test::readFile(log.filePath())));
        QVERIFY2(lines.size() == 5 && lines.at(3).startsWith(QStringLiteral("paste keystroke failed keystroke=ctrl+v error=")),
            qPrintable(lines.join(u'\n')));
        QCOMPARE(lines.first(), QStringLiteral("paste begin target=Editor chars=4"));
        QCOMPARE(lines.mid(1, 2), (QStringList{QStringLiteral("paste target reactivated ok=false"), QStringLiteral("pasteboard transcript installed")}));
        QCOMPARE(lines.last(), QStringLiteral("command-v posted to pid=1234"));
    }
};

QTEST_GUILESS_MAIN(TestPlatformUnavailable)
#include "tst_platform_unavailable.moc"
