#include "E2eSupport.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace dictora::test::e2e;
namespace x11 = dictora::test::x11;

// `dictora doctor` on the X11 rig: the exit status says whether a dictation
// can work, and a deliberately broken service is named as the failure, by
// the program itself or, while one runs, by the running Dictora.
class TestE2eDoctor : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void reportsWhatIsBroken_data()
    {
        QTest::addColumn<QString>("broken");
        QTest::addColumn<bool>("running");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("nothing, checked here") << QString() << false << 0;
        QTest::newRow("nothing, asked of the running program") << QString() << true << 0;
        QTest::newRow("model missing") << QStringLiteral("model") << false << 1;
        QTest::newRow("no microphone") << QStringLiteral("microphone") << false << 1;
        QTest::newRow("shortcut taken") << QStringLiteral("shortcut") << false << 1;
        // Not a failure: the default input is heard instead, and the doctor says so.
        QTest::newRow("chosen microphone unplugged") << QStringLiteral("chosen microphone") << false << 0;
    }

    void reportsWhatIsBroken()
    {
        QFETCH(QString, broken);
        QFETCH(bool, running);
        QFETCH(int, exitCode);

        QString why;
        QVERIFY2(beginCase(emptyWeightModel(), broken != QLatin1String("model"), &why), qPrintable(why));
        if (broken == QLatin1String("microphone"))
            run->setEnvironment(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:/nonexistent/pulse"));
        std::unique_ptr<x11::ForeignGrab> grab;
        if (broken == QLatin1String("shortcut")) {
            grab = std::make_unique<x11::ForeignGrab>(keyboard.keycode("grave"), 0);
            QVERIFY(grab->isHeld());
        }
        if (broken == QLatin1String("chosen microphone"))
            run->writeSettings({{QStringLiteral("audio.microphone.source"), QStringLiteral("unplugged_usb")}});
        if (running) {
            QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
            QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        }

        QString output;
        const int code = run->runVerb(dictoraBinary(), {QStringLiteral("doctor"), QStringLiteral("--json")}, &output);
        const QStringList lines = output.split(u'\n').filter(QRegularExpression(QStringLiteral("^\\{")));
        const QJsonDocument json = QJsonDocument::fromJson(lines.value(0).toUtf8());
        QVERIFY2(json.isObject(), qPrintable(output));
        QCOMPARE(code, exitCode);
        QCOMPARE(json.object().value("dictationWorks").toBool(), exitCode == 0);

        QStringList failed;
        QHash<QString, QJsonObject> checks;
        for (const QJsonValue &value : json.object().value("checks").toArray()) {
            const QJsonObject check = value.toObject();
            checks.insert(check.value("id").toString(), check);
            if (check.value("status").toString() == QLatin1String("failed")) {
                failed << check.value("id").toString();
                QVERIFY2(!check.value("advice").toString().isEmpty(), qPrintable(check.value("id").toString()));
            }
        }
        QCOMPARE(failed, exitCode == 0 ? QStringList() : QStringList{broken});
        QCOMPARE(checks.value("shortcut").value("mechanism").toString(), QStringLiteral("x11-key-grab"));
        QCOMPARE(checks.value("keystroke").value("mechanism").toString(), QStringLiteral("x11-xtest"));
        if (broken != QLatin1String("model"))
            QVERIFY2(checks.value("device").value("detail").toString().contains(QStringLiteral("warm recognition")),
                qPrintable(checks.value("device").value("detail").toString()));
        // The sound server's virtual microphone hears silence: working, with a warning.
        if (exitCode == 0)
            QCOMPARE(checks.value("microphone").value("status").toString(), QStringLiteral("warning"));
        QCOMPARE(checks.value("microphone").value("detail").toString().contains(QStringLiteral("not connected")),
            broken == QLatin1String("chosen microphone"));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eDoctor)
#include "tst_e2e_doctor.moc"
