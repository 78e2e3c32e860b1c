// The real application in a headless Sway session (with-sway, with-pulse):
// `dictora toggle` as the compositor's binding runs it, pasting into foot
// through the Wayland backends. Only the recogniser's words are scripted.
#include "E2eSupport.h"
#include "SwaySupport.h"
#include "support/TestSupport.h"

#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;
namespace sway = dictora::test::sway;

class TestE2eWayland : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

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
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->writeSnippets({{QStringLiteral("my address"), QStringLiteral("12 Harbour Road, Leith")}});
        // The app id makes it a terminal (Ctrl+Shift+V); the desktop entry of
        // the same name, ahead of the system's, names it in the journal.
        QVERIFY(dictora::test::writeFile(run->root() + QStringLiteral("/data/applications/foot.desktop"),
                                         "[Desktop Entry]\nType=Application\nName=Foot Target\nExec=foot\n"));
        // Let the program pick its own platform: XWayland for its windows.
        run->setEnvironment(QStringLiteral("QT_QPA_PLATFORM"), QString());
        QVERIFY2(startScripted(QStringLiteral("  um, please send the invoice to my address  "), &why), qPrintable(why));

        sway::Foot target(QStringLiteral("foot"), scratch->filePath(QStringLiteral("target.txt")));
        QVERIFY2(target.start(&why), qPrintable(why));
        QVERIFY2(toggleUntil(QStringLiteral("recording started session="), &why), qPrintable(why));

        std::unique_ptr<sway::Foot> other;
        if (moveFocus) {
            other = std::make_unique<sway::Foot>(QStringLiteral("dictora-e2e-other"),
                                                 scratch->filePath(QStringLiteral("other.txt")));
            QVERIFY2(other->start(&why), qPrintable(why));
        }
        const QString clip = speechClip(scratch->path(), 1.5, &why);
        QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
        QVERIFY2(toggleUntil(QStringLiteral("recording completed outcome="), &why), qPrintable(why));

        QString received;
        QVERIFY2(target.waitFor(expected, 20000, &received),
                 qPrintable(QStringLiteral("foot holds \"%1\"").arg(QString::fromLatin1(received.toUtf8().toPercentEncoding(" ")))));
        if (other)
            QCOMPARE(other->received(), QString());
        QCOMPARE(sway::focusedAppId(), target.appId());

        const QJsonObject record = run->records().first();
        QCOMPARE(record.value("outcome").toString(), QStringLiteral("pasted"));
        QCOMPARE(record.value("transcript").toString(), expected);
        QCOMPARE(record.value("targetApplication")["name"].toString(), QStringLiteral("Foot Target"));
        QCOMPARE(record.value("targetApplication")["bundleIdentifier"].toString(), target.appId());

        const QStringList messages = run->messages();
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
        QTRY_VERIFY_WITH_TIMEOUT(run->countLines(QStringLiteral("paste delivered to target selection=clipboard")) == 1, 5000);

        // The same text again, into the window that has the focus now.
        if (!moveFocus) {
            QCOMPARE(run->runVerb(scriptedBinary(), {QStringLiteral("paste-last")}), 0);
            QVERIFY2(target.waitFor(expected + expected, 20000, &received), qPrintable(received));
            QCOMPARE(run->records().size(), 1);
        }
        QVERIFY2(run->stop(&why), qPrintable(why));
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
