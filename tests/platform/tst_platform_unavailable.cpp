#include "platform/services/PlatformServices.h"
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
        PasteTarget target;
        target.application = TargetApplication{QStringLiteral("Editor"), QStringLiteral("Mousepad"), 1234};
        target.window = WindowHandle{0x400003};
        std::optional<qint64> dispatched;
        service.paste(QStringLiteral("text"), target, [&](qint64 ms) { dispatched = ms; });
        // The window never becomes active: the sequence gives up after its bound.
        QTRY_VERIFY_WITH_TIMEOUT(dispatched.has_value(), 5000);
        QVERIFY(*dispatched >= 0);
        QFile file(log.filePath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString content = QString::fromUtf8(file.readAll());
        QVERIFY(content.contains(QStringLiteral("] paste begin target=Editor chars=4\n")));
        QVERIFY(content.contains(QStringLiteral("] paste target reactivated ok=false\n")));
        QVERIFY(content.contains(QStringLiteral("] pasteboard transcript installed\n")));
        QVERIFY(content.contains(QStringLiteral("] paste keystroke failed keystroke=ctrl+v error=")));
        QVERIFY(content.contains(QStringLiteral("] command-v posted to pid=1234\n")));
    }
};

QTEST_GUILESS_MAIN(TestPlatformUnavailable)
#include "tst_platform_unavailable.moc"
