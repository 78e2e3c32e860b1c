#include "E2eSupport.h"

#include <QGuiApplication>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;

// "dictora toggle" from a shell drives the running program's dictation
// exactly as the shortcut does.
class TestE2eToggle : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void toggleWithoutARunningProgram()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        QString output;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("toggle")}, &output), 1);
        QVERIFY2(output.contains(QStringLiteral("Dictora is not running")), qPrintable(output));
    }

    void toggleDrivesADictation()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        // A chosen microphone that is unplugged: the default is heard, and the indicator says so.
        run->writeSettings({{QStringLiteral("audio.microphone.source"), QStringLiteral("unplugged_usb")}});
        run->setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), QStringLiteral("toggled from a shell"));
        QVERIFY2(run->start(scriptedBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));

        QString output;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("toggle")}, &output), 0);
        QVERIFY2(run->waitForLines(QStringLiteral("recording started session="), 1, 30000, &why), qPrintable(why));

        const QString clip = speechClip(scratch->path(), 1.5, &why);
        QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("toggle")}, &output), 0);
        QVERIFY2(run->waitForLines(QStringLiteral("recording completed outcome="), 1, 60000, &why), qPrintable(why));

        QString received;
        QVERIFY2(editor.readBack(QStringLiteral("Toggled from a shell"), &received),
            qPrintable(QStringLiteral("the editor holds \"%1\"; log:\n%2").arg(received, run->logText())));
        const QList<QJsonObject> records = run->records();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records.first().value("outcome").toString(), QStringLiteral("pasted"));
        QCOMPARE(records.first().value("transcript").toString(), QStringLiteral("Toggled from a shell"));
        QCOMPARE(records.first().value("targetApplication")["processIdentifier"].toInteger(), editor.pid());
        QVERIFY2(linesInOrder(run->messages(),
                     {QStringLiteral("microphone chosen source=unplugged_usb is missing; recording from the default"),
                         QStringLiteral("microphone notice text=The chosen microphone is not connected; recording from the default input.")},
                     &why),
            qPrintable(why));
    }

    // A desktop binding that runs "dictora press" on key down and "dictora
    // release" on key up, with hold to talk on: the release ends the dictation.
    void holdToTalkThroughPressAndRelease()
    {
        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), true, &why), qPrintable(why));
        run->writeSettings({{QStringLiteral("keyboard.shortcut.holdToTalk"), true}});
        run->setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), QStringLiteral("held to talk"));
        QVERIFY2(run->start(scriptedBinary(), &why), qPrintable(why));
        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));

        TextEditor editor(keyboard, scratch->filePath(QStringLiteral("editor.txt")));
        QVERIFY2(editor.start(&why), qPrintable(why));

        QString output;
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("press")}, &output), 0);
        QVERIFY2(run->waitForLines(QStringLiteral("recording started session="), 1, 30000, &why), qPrintable(why));
        const QString clip = speechClip(scratch->path(), 1.5, &why);
        QVERIFY2(!clip.isEmpty() && playIntoMicrophone(clip, &why), qPrintable(why));
        QCOMPARE(run->runVerb(dictoraBinary(), {QStringLiteral("release")}, &output), 0);
        QVERIFY2(run->waitForLines(QStringLiteral("recording completed outcome="), 1, 60000, &why), qPrintable(why));

        QString received;
        QVERIFY2(editor.readBack(QStringLiteral("Held to talk"), &received),
            qPrintable(QStringLiteral("the editor holds \"%1\"; log:\n%2").arg(received, run->logText())));
        QCOMPARE(run->records().size(), 1);
        QCOMPARE(run->records().first().value("outcome").toString(), QStringLiteral("pasted"));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eToggle)
#include "tst_e2e_toggle.moc"
