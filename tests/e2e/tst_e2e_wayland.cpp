// The real application in a headless Sway session: the compositor's binding
// would run `dictora toggle`, the target is foot (a native Wayland client)
// and the paste goes through the Wayland backends. Only the recogniser's
// words are scripted. Run under with-sway and with-pulse.
#include "E2eSupport.h"
#include "SwaySupport.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;
namespace sway = dictora::test::sway;

class TestE2eWayland : public QObject {
    Q_OBJECT

    std::unique_ptr<DictoraRun> m_run;

private Q_SLOTS:
    // The artifact folder belongs to root while this runs as Sway's user:
    // a failure's log goes to the test output instead.
    void cleanup()
    {
        if (m_run && QTest::currentTestFailed())
            qWarning().noquote() << "runtime log:\n" << m_run->logText() << "\nprogram output:\n" << m_run->programOutput();
        m_run.reset();
    }

    void toggleTwicePastesIntoFoot_data()
    {
        QTest::addColumn<bool>("moveFocus");
        QTest::newRow("target keeps the focus") << false;
        QTest::newRow("focus moved to another window while recording") << true;
    }

    void toggleTwicePastesIntoFoot()
    {
        QFETCH(bool, moveFocus);
        const QString expected = QStringLiteral("Please send the invoice to 12 Harbour Road, Leith");
        QTemporaryDir scratch;
        m_run = std::make_unique<DictoraRun>();
        DictoraRun &run = *m_run;
        QVERIFY(scratch.isValid() && run.isValid());
        QString why;
        run.writeSettings();
        run.writeSnippets({{QStringLiteral("my address"), QStringLiteral("12 Harbour Road, Leith")}});
        QVERIFY2(run.useModel(emptyWeightModel(), true, &why), qPrintable(why));
        // The app id makes it a terminal (Ctrl+Shift+V); the desktop entry of
        // the same name, ahead of the system's, names it in the journal.
        const QString applications = QDir(run.root()).filePath(QStringLiteral("data/applications"));
        QVERIFY(QDir().mkpath(applications));
        QVERIFY(dictora::test::writeFile(applications + QStringLiteral("/foot.desktop"),
                                         "[Desktop Entry]\nType=Application\nName=Foot Target\nExec=foot\n"));
        run.setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"),
                           QStringLiteral("  um, please send the invoice to my address  "));
        // Let the program pick its own platform: XWayland for its windows.
        run.setEnvironment(QStringLiteral("QT_QPA_PLATFORM"), QString());
        QVERIFY2(run.start(scriptedBinary(), &why), qPrintable(why));
        QVERIFY2(run.waitUntilModelReady(&why), qPrintable(why));

        sway::Foot target(QStringLiteral("foot"), scratch.filePath(QStringLiteral("target.txt")));
        QVERIFY2(target.start(&why), qPrintable(why));
        QCOMPARE(run.runVerb(scriptedBinary(), {QStringLiteral("toggle")}), 0);
        QVERIFY2(run.waitForLines(QStringLiteral("recording started session="), 1, 30000, &why), qPrintable(why));

        std::unique_ptr<sway::Foot> other;
        if (moveFocus) {
            other = std::make_unique<sway::Foot>(QStringLiteral("dictora-e2e-other"),
                                                 scratch.filePath(QStringLiteral("other.txt")));
            QVERIFY2(other->start(&why), qPrintable(why));
        }
        const QString clip = speechClip(scratch.path(), 1.5, &why);
        QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
        QCOMPARE(run.runVerb(scriptedBinary(), {QStringLiteral("toggle")}), 0);
        QVERIFY2(run.waitForLines(QStringLiteral("recording completed outcome="), 1, 60000, &why), qPrintable(why));

        QString received;
        QVERIFY2(target.waitFor(expected, 20000, &received),
                 qPrintable(QStringLiteral("foot holds \"%1\"").arg(QString::fromLatin1(received.toUtf8().toPercentEncoding(" ")))));
        if (other)
            QCOMPARE(other->received(), QString());
        QCOMPARE(sway::focusedAppId(), target.appId());

        const QJsonObject record = run.records().first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("pasted"));
        QCOMPARE(record.value("transcript").toString(), expected);
        QCOMPARE(record.value("targetApplication")["name"].toString(), QStringLiteral("Foot Target"));
        QCOMPARE(record.value("targetApplication")["bundleIdentifier"].toString(), target.appId());

        const QStringList messages = run.messages();
        for (const QString &line : {QStringLiteral("platform session type=wayland desktop=sway"),
                 QStringLiteral("platform backend service=windows backend=qt-xcb"),
                 QStringLiteral("platform backend service=window-tracker backend=wayland-foreign-toplevel"),
                 QStringLiteral("platform backend service=paste-keystroke backend=wayland-virtual-keyboard"),
                 QStringLiteral("platform backend service=clipboard backend=wayland-data-control"),
                 QStringLiteral("platform backend service=permissions backend=wayland-wlroots")})
            QVERIFY2(messages.contains(line), qPrintable(line + QStringLiteral(" missing from:\n") + messages.join(u'\n')));
        QVERIFY2(linesInOrder(messages,
                     {QStringLiteral("recording started session=%1 target=Foot Target").arg(record.value("id").toString()),
                         QStringLiteral("paste begin target=Foot Target chars=%1").arg(expected.size()),
                         QStringLiteral("paste keystroke sent keystroke=ctrl+shift+v"),
                         QStringLiteral("recording completed outcome=pasted")},
                     &why),
            qPrintable(why));
        QCOMPARE(messages.contains(QStringLiteral("paste target reactivated ok=true")), moveFocus);
        QTRY_VERIFY_WITH_TIMEOUT(run.countLines(QStringLiteral("paste delivered to target selection=clipboard")) == 1, 5000);

        // The same text again, into the window that has the focus now.
        if (!moveFocus) {
            QCOMPARE(run.runVerb(scriptedBinary(), {QStringLiteral("paste-last")}), 0);
            QVERIFY2(target.waitFor(expected + expected, 20000, &received), qPrintable(received));
            QCOMPARE(run.records().size(), 1);
        }
        QVERIFY2(run.stop(&why), qPrintable(why));
    }
};

int main(int argc, char **argv)
{
    if (const int skip = sway::checkSession())
        return skip;
    if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return dictora::test::skipAll("needs a sound server: run under tests/support/pulse/with-pulse");
    if (testData().isEmpty())
        return dictora::test::skipAll("../shared/testdata is not beside the repository");
    qputenv("LC_ALL", "C.UTF-8");
    QGuiApplication app(argc, argv);
    TestE2eWayland tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_e2e_wayland.moc"
