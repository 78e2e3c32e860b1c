#include "FakePortal.h"
#include "platform/portal/EvdevKeystroke.h"
#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/RemoteDesktopKeystrokeSender.h"

#include <QJsonObject>
#include <QtTest>

using namespace dictora;
using dictora::portal::RemoteDesktopKeystrokeSender;
using dictora::test::FakePortal;
using dictora::test::waitFor;
using Stage = RemoteDesktopKeystrokeSender::Stage;

namespace {
// The fake portal, a sender on its bus, and the token store it keeps.
struct Rig {
    FakePortal portal;
    QString token;
    std::unique_ptr<RemoteDesktopKeystrokeSender> sender;

    bool start(const QStringList &options, const QString &kept = {}, int keyForV = 47)
    {
        if (!portal.start(options))
            return false;
        token = kept;
        sender = std::make_unique<RemoteDesktopKeystrokeSender>(portal.client(),
            RemoteDesktopKeystrokeSender::TokenStore{[this] { return token; }, [this](const QString &t) { token = t; }},
            keyForV);
        return true;
    }
    bool reaches(Stage stage) { return waitFor([&] { return sender->stage() == stage; }); }
    // "29+ 47+ 47- 29-" from the keycode calls the portal received.
    QString typed()
    {
        QStringList keys;
        for (const QJsonValue &call : portal.calls("RemoteDesktop.NotifyKeyboardKeycode")) {
            const QJsonArray args = call.toArray();
            keys << QString::number(args[2].toInt()) + (args[3].toInt() == 1 ? "+" : "-");
        }
        return keys.join(' ');
    }
};
} // namespace

class TestPortalKeystroke : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // What arrives on the bus is what a compositor would type, each key
    // awaited in order; a session's first key event is a lone Shift tap
    // (mutter drops the first one). Version 1 (KDE Plasma 5.27) has no
    // persistence to ask for.
    void keycodes_data()
    {
        QTest::addColumn<int>("keystroke");
        QTest::addColumn<int>("keyForV");
        QTest::addColumn<int>("version");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ctrl+v") << int(PasteKeystroke::controlV) << 47 << 2 << "29+ 47+ 47- 29-";
        QTest::newRow("ctrl+shift+v") << int(PasteKeystroke::controlShiftV) << 47 << 2 << "29+ 42+ 47+ 47- 42- 29-";
        QTest::newRow("shift+insert ignores the layout") << int(PasteKeystroke::shiftInsert) << 52 << 2 << "42+ 110+ 110- 42-";
        QTest::newRow("ctrl+v on dvorak") << int(PasteKeystroke::controlV) << 52 << 2 << "29+ 52+ 52- 29-";
        QTest::newRow("version 1") << int(PasteKeystroke::controlV) << 47 << 1 << "29+ 47+ 47- 29-";
    }
    void keycodes()
    {
        QFETCH(int, keystroke);
        QFETCH(int, keyForV);
        QFETCH(int, version);
        QFETCH(QString, expected);
        Rig rig;
        QVERIFY2(rig.start({"--remote-version", QString::number(version)}, "stale", keyForV), qPrintable(rig.portal.errorText()));
        rig.sender->start();
        QVERIFY(rig.reaches(Stage::started));
        QVERIFY(rig.sender->send(PasteKeystroke(keystroke)));
        QVERIFY2(waitFor([&] { return rig.typed() == "42+ 42- " + expected; }), qPrintable(rig.typed()));
        const QJsonObject select = rig.portal.calls("RemoteDesktop.SelectDevices")[0].toArray()[1].toObject();
        QCOMPARE(select["types"].toInt(), 1);
        QCOMPARE(select["persist_mode"].toInt(), version >= 2 ? 2 : 0);
        QCOMPARE(select["restore_token"].toString(), QString(version >= 2 ? "stale" : ""));
    }

    void layoutDecidesTheKeyForV_data()
    {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QString>("variant");
        QTest::addColumn<int>("evdev");
        QTest::newRow("us") << "us" << "" << 47;
        QTest::newRow("french azerty") << "fr" << "" << 47;
        QTest::newRow("us dvorak") << "us" << "dvorak" << 52;
        QTest::newRow("russian: no v, us position") << "ru" << "" << 47;
        QTest::newRow("unknown layout") << "no-such-layout" << "" << 47;
        QTest::newRow("none") << "" << "" << 47;
    }
    void layoutDecidesTheKeyForV()
    {
        QFETCH(QString, layout);
        QFETCH(QString, variant);
        QFETCH(int, evdev);
        if (!QFile::exists("/usr/share/X11/xkb/symbols/us"))
            QSKIP("xkb-data is not installed");
        QCOMPARE(portal::evdevCodeForV({layout, variant}), evdev);
    }

    // What the user answers decides what is kept (a kept token is spent
    // either way) and whether the paste waiting on the dialog goes out; the
    // next paste always asks again, and goes out whole once allowed.
    void consentAnswers_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<int>("stage");
        QTest::addColumn<int>("consent");
        QTest::addColumn<bool>("tokenKept");
        using Consent = RemoteDesktopKeystrokeSender::Consent;
        QTest::newRow("allowed, remembered") << "accept" << int(Stage::started) << int(Consent::allowed) << true;
        QTest::newRow("allowed, not remembered") << "forget" << int(Stage::started) << int(Consent::allowed) << false;
        QTest::newRow("refused") << "cancel" << int(Stage::refused) << int(Consent::refused) << false;
        QTest::newRow("dialog closed unanswered") << "close" << int(Stage::idle) << int(Consent::unknown) << false;
    }
    void consentAnswers()
    {
        QFETCH(QString, answer);
        QFETCH(int, stage);
        QFETCH(int, consent);
        QFETCH(bool, tokenKept);
        Rig rig;
        QVERIFY2(rig.start({"--consent-answer", answer}, "revoked-token"), qPrintable(rig.portal.errorText()));
        QString error = "not answered";
        rig.sender->sendThen(PasteKeystroke::controlV, [&](const QString &e) { error = e; });
        QVERIFY(waitFor([&] { return error != "not answered"; }));
        QCOMPARE(int(rig.sender->stage()), stage);
        QCOMPARE(int(rig.sender->consent()), consent);
        QCOMPARE(rig.token.startsWith("token-"), tokenKept);
        QVERIFY(rig.token != "revoked-token");
        const bool started = stage == int(Stage::started);
        QCOMPARE(error.isEmpty(), started); // pasted only when every key arrived
        QCOMPARE(rig.typed().isEmpty(), !started);

        rig.portal.setAnswers("accept", "accept");
        QVERIFY(rig.sender->send(PasteKeystroke::controlShiftV));
        QVERIFY(rig.reaches(Stage::started));
        QVERIFY(waitFor([&] { return rig.typed().endsWith("29+ 42+ 47+ 47- 42- 29-"); }));
    }

    // A key the desktop refuses ends the keystroke, and nothing stays pressed.
    void refusedKeyReleasesTheHeldOnes()
    {
        Rig rig;
        QVERIFY2(rig.start({"--fail-keycode", "47"}), qPrintable(rig.portal.errorText()));
        rig.sender->start();
        QVERIFY(rig.reaches(Stage::started));
        QString error = "not answered";
        rig.sender->sendThen(PasteKeystroke::controlShiftV, [&](const QString &e) { error = e; });
        QVERIFY(waitFor([&] { return error != "not answered"; }));
        QVERIFY(error.contains("did not take"));
        QVERIFY(waitFor([&] { return rig.typed() == "42+ 42- 29+ 42+ 42- 29-"; }));
    }

    void desktopWithoutRemoteDesktop()
    {
        Rig rig;
        QVERIFY2(rig.start({"--remote-version", "0"}), qPrintable(rig.portal.errorText()));
        QCOMPARE(rig.sender->stage(), Stage::failed);
        QVERIFY(!rig.sender->send(PasteKeystroke::controlV));
        QVERIFY(rig.sender->failureReason().contains("RemoteDesktop"));
    }
};

int main(int argc, char **argv) { return dictora::test::fakePortalMain<TestPortalKeystroke>(argc, argv); }

#include "tst_portal_keystroke.moc"
