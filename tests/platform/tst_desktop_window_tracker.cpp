#include "platform/kde/KWinWindowTracker.h"
#include "platform/services/PlatformServices.h"
#include "support/TestSupport.h"

#include <QDBusMessage>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace dictora;

namespace {

QString currentDesktop() { return qEnvironmentVariable("XDG_CURRENT_DESKTOP").toLower(); }

// A real native Wayland window whose app id we choose: GTK takes it from --name.
std::unique_ptr<QProcess> startEditor(const QString &appId)
{
    auto editor = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("GDK_BACKEND"), QStringLiteral("wayland"));
    env.remove(QStringLiteral("DISPLAY"));
    editor->setProcessEnvironment(env);
    editor->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    editor->setStandardOutputFile(QProcess::nullDevice());
    editor->start(QStringLiteral("l3afpad"), {QStringLiteral("--name=") + appId});
    return editor;
}

void stop(QProcess &process)
{
    process.terminate();
    if (!process.waitForFinished(3000))
        process.kill();
    process.waitForFinished(3000);
}

// A call on KWin's scripting interface; its first answer.
QVariant kwinScripting(const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.kde.KWin"), QStringLiteral("/Scripting"),
        QStringLiteral("org.kde.kwin.Scripting"), method);
    call.setArguments(arguments);
    return QDBusConnection::sessionBus().call(call, QDBus::Block, 5000).arguments().value(0);
}

bool kwinHasScript(const QString &pluginName) { return kwinScripting(QStringLiteral("isScriptLoaded"), {pluginName}).toBool(); }

QString frontmostClass(WindowTracker &tracker)
{
    const auto window = tracker.frontmostWindow();
    return window ? window->windowClass : QStringLiteral("<none>");
}

} // namespace

// The desktop's own window tracking, in a real headless KWin or Mutter.
class DesktopWindowTrackerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sessionTablePicksTheDesktopsTracker_data()
    {
        QTest::addColumn<QString>("desktop");
        QTest::addColumn<QString>("backend");
        QTest::newRow("KDE Plasma") << "kde" << "kwin-scripting";
        QTest::newRow("GNOME") << "gnome" << "focus-at-paste";
    }

    void sessionTablePicksTheDesktopsTracker()
    {
        QFETCH(QString, desktop);
        QFETCH(QString, backend);
        if (currentDesktop() != desktop)
            QSKIP("another desktop's session");

        Platform::takeBackendReport();
        std::unique_ptr<WindowTracker> tracker = Platform::createWindowTracker();
        QVERIFY(tracker);
        const QStringList report = Platform::takeBackendReport();
        QVERIFY2(report.contains(QStringLiteral("platform backend service=window-tracker backend=") + backend),
                 qPrintable(report.join(u'\n')));
        // Neither desktop offers the wlroots protocol; the log says so.
        QVERIFY2(!report.filter(QStringLiteral("skipped=wayland-foreign-toplevel reason=")).isEmpty(),
                 qPrintable(report.join(u'\n')));

        if (desktop == QLatin1String("gnome")) { // the target then: tst_paste_sequence's "focus at paste time"
            const kde::KWinWindowTracker kwin;
            QVERIFY2(!kwin.isUsable() && kwin.failureReason().contains(QLatin1String("org.kde.KWin")),
                qPrintable(kwin.failureReason()));
        }
    }

    void kwinFollowsFocusAndReactivates()
    {
        if (currentDesktop() != QLatin1String("kde"))
            QSKIP("KWin runs only in the KDE session");
        if (QStandardPaths::findExecutable(QStringLiteral("l3afpad")).isEmpty())
            DICTORA_RIG_MISSING("l3afpad is not installed (the native Wayland window used as a target)");

        auto owned = std::make_unique<kde::KWinWindowTracker>();
        kde::KWinWindowTracker &tracker = *owned;
        QVERIFY2(tracker.isUsable(), qPrintable(tracker.failureReason()));
        const QString script = tracker.scriptName();
        QTRY_VERIFY_WITH_TIMEOUT(kwinHasScript(script), 5000); // KWin answers the load later

        std::unique_ptr<QProcess> alpha = startEditor(QStringLiteral("dictora-alpha"));
        QTRY_COMPARE_WITH_TIMEOUT(frontmostClass(tracker), QStringLiteral("dictora-alpha"), 20000);
        const FrontmostWindow first = *tracker.frontmostWindow();
        QCOMPARE(first.processId, qint32(alpha->processId()));
        QVERIFY(!first.window.isNull());
        // No desktop entry has the app id; the program's own entry, found by its instance name, names it.
        QCOMPARE(first.applicationName, QStringLiteral("L3afpad"));

        // A new window takes focus; the tracker follows without being asked.
        std::unique_ptr<QProcess> beta = startEditor(QStringLiteral("dictora-beta"));
        QTRY_COMPARE_WITH_TIMEOUT(frontmostClass(tracker), QStringLiteral("dictora-beta"), 20000);
        const FrontmostWindow second = *tracker.frontmostWindow();
        QCOMPARE(second.processId, qint32(beta->processId()));
        QVERIFY(second.window != first.window);
        QVERIFY(tracker.isActive(second.window));
        QVERIFY(!tracker.isActive(first.window));
        QVERIFY(!tracker.isActive(WindowHandle{}));

        // Back and forth, as a paste after the user moved focus would do.
        for (const FrontmostWindow &wanted : {first, second, first}) {
            tracker.requestActivation(wanted.window);
            QTRY_VERIFY_WITH_TIMEOUT(tracker.isActive(wanted.window), 10000);
            QCOMPARE(*tracker.frontmostWindow(), wanted);
        }
        // Each activation's script leaves KWin once it has run.
        for (int n = 1; n <= 3; ++n)
            QTRY_VERIFY_WITH_TIMEOUT(!kwinHasScript(script + QStringLiteral("-activate-%1").arg(n)), 5000);

        // Handles it never gave out activate nothing.
        tracker.requestActivation(WindowHandle{9999});
        tracker.requestActivation(WindowHandle{});
        QTest::qWait(300);
        QVERIFY(tracker.isActive(first.window));

        // A window that goes away leaves the next one focused, and that is what is reported.
        stop(*alpha);
        QTRY_COMPARE_WITH_TIMEOUT(frontmostClass(tracker), QStringLiteral("dictora-beta"), 10000);
        stop(*beta);

        // Nothing of ours stays in the user's KWin.
        owned.reset();
        QVERIFY(!kwinHasScript(script));
    }

    // A dead process with our pid left its script under the name we want: we take the name over.
    void kwinTakesOverAScriptLeftBehind()
    {
        if (currentDesktop() != QLatin1String("kde"))
            QSKIP("KWin runs only in the KDE session");
        QString next;
        {
            const kde::KWinWindowTracker probe;
            QVERIFY2(probe.isUsable(), qPrintable(probe.failureReason()));
            const QString name = probe.scriptName();
            const qsizetype dash = name.lastIndexOf(u'-');
            next = name.left(dash + 1) + QString::number(name.mid(dash + 1).toInt() + 1);
        }
        QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("stale.js"));
        QVERIFY(test::writeFile(file, "print('left behind');\n"));
        QVERIFY(kwinScripting(QStringLiteral("loadScript"), {file, next}).toInt() >= 0);
        QVERIFY(kwinHasScript(next));

        kde::KWinWindowTracker tracker;
        QVERIFY2(tracker.isUsable(), qPrintable(tracker.failureReason()));
        QCOMPARE(tracker.scriptName(), next);
        std::unique_ptr<QProcess> editor = startEditor(QStringLiteral("dictora-gamma"));
        QTRY_COMPARE_WITH_TIMEOUT(frontmostClass(tracker), QStringLiteral("dictora-gamma"), 20000);
        stop(*editor);
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariableIsEmpty("XDG_CURRENT_DESKTOP"))
        return dictora::test::rigMissing("not inside a desktop session (run through with-desktop-portal)");
    QCoreApplication app(argc, argv);
    DesktopWindowTrackerTest tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_desktop_window_tracker.moc"
