#include "FakePortal.h"
#include "platform/portal/EvdevKeystroke.h"
#include "platform/portal/KeyboardLayout.h"
#include "platform/portal/RemoteDesktopKeystrokeSender.h"
#include "support/TestSupport.h"

#include <QJsonObject>
#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using dictora::portal::RemoteDesktopKeystrokeSender;
using dictora::test::FakePortal;
using Stage = RemoteDesktopKeystrokeSender::Stage;

namespace {
struct MemoryTokens {
    QString token;
    int saves = 0;
    RemoteDesktopKeystrokeSender::TokenStore store()
    {
        return {[this] { return token; }, [this](const QString &t) { token = t, ++saves; }};
    }
};

bool waitForStage(RemoteDesktopKeystrokeSender &sender, Stage stage)
{
    return QTest::qWaitFor([&] { return sender.stage() == stage; }, 10000);
}

// "29+ 47+ 47- 29-" from the keycode calls the portal received.
QString typed(const QJsonArray &calls)
{
    QStringList keys;
    for (const QJsonValue &call : calls) {
        const QJsonArray args = call.toArray();
        keys << QString::number(args[2].toInt()) + (args[3].toInt() == 1 ? "+" : "-");
    }
    return keys.join(' ');
}
} // namespace

class TestPortalKeystroke : public QObject {
    Q_OBJECT

    int m_connection = 0;
    QDBusConnection clientOf(FakePortal &portal) { return portal.connect(QStringLiteral("client-%1").arg(++m_connection)); }

private Q_SLOTS:
    void keycodes_data()
    {
        QTest::addColumn<int>("keystroke");
        QTest::addColumn<int>("keyForV");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ctrl+v") << int(PasteKeystroke::controlV) << 47 << "29+ 47+ 47- 29-";
        QTest::newRow("ctrl+shift+v") << int(PasteKeystroke::controlShiftV) << 47 << "29+ 42+ 47+ 47- 42- 29-";
        QTest::newRow("shift+insert ignores the layout") << int(PasteKeystroke::shiftInsert) << 52 << "42+ 110+ 110- 42-";
        QTest::newRow("ctrl+v on dvorak") << int(PasteKeystroke::controlV) << 52 << "29+ 52+ 52- 29-";
    }

    // Through the portal: what arrives on the bus is what a compositor would type.
    void keycodes()
    {
        QFETCH(int, keystroke);
        QFETCH(int, keyForV);
        QFETCH(QString, expected);
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store(), keyForV);
        sender.start();
        QVERIFY(waitForStage(sender, Stage::started));
        QVERIFY(sender.send(PasteKeystroke(keystroke)));
        QVERIFY(QTest::qWaitFor([&] { return typed(portal.calls("RemoteDesktop.NotifyKeyboardKeycode")) == expected; }, 5000));
    }

    void layoutDecidesTheKeyForV_data()
    {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QString>("variant");
        QTest::addColumn<int>("evdev");
        QTest::newRow("us") << "us" << "" << 47;
        QTest::newRow("german") << "de" << "" << 47;
        QTest::newRow("french azerty") << "fr" << "" << 47;
        QTest::newRow("us dvorak") << "us" << "dvorak" << 52;
        QTest::newRow("colemak") << "us" << "colemak" << 47;
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

    // Consent once: the token of the first run opens the second without a dialog.
    void restoreTokenIsKeptAndSentBack()
    {
        FakePortal portal;
        QVERIFY2(portal.start(), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        {
            RemoteDesktopKeystrokeSender first(clientOf(portal), tokens.store());
            QCOMPARE(first.portalVersion(), 2u);
            first.start();
            QVERIFY(waitForStage(first, Stage::started));
        }
        QCOMPARE(tokens.token, QStringLiteral("token-1"));
        const QJsonObject firstSelect = portal.calls("RemoteDesktop.SelectDevices")[0].toArray()[1].toObject();
        QCOMPARE(firstSelect["types"].toInt(), 1);
        QCOMPARE(firstSelect["persist_mode"].toInt(), 2);
        QVERIFY(!firstSelect.contains("restore_token"));

        portal.setAnswers("accept", "cancel"); // a dialog now would be refused
        RemoteDesktopKeystrokeSender second(clientOf(portal), tokens.store());
        second.start();
        QVERIFY(waitForStage(second, Stage::started));
        const QJsonObject secondSelect = portal.calls("RemoteDesktop.SelectDevices")[1].toArray()[1].toObject();
        QCOMPARE(secondSelect["restore_token"].toString(), QStringLiteral("token-1"));
        QCOMPARE(tokens.token, QStringLiteral("token-2")); // tokens are single use
    }

    void refusedConsent()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--consent-answer", "cancel"}), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        tokens.token = "revoked-token";
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store());
        QVERIFY(sender.send(PasteKeystroke::controlV)); // queued while the desktop asks
        QVERIFY(waitForStage(sender, Stage::refused));
        QVERIFY(sender.failureReason().contains("not allowed"));
        QVERIFY(tokens.token.isEmpty());
        QVERIFY(portal.calls("RemoteDesktop.NotifyKeyboardKeycode").isEmpty());

        // Asked again at the next paste; allowed this time, the queued keystroke goes out.
        portal.setAnswers("accept", "accept");
        QVERIFY(sender.send(PasteKeystroke::controlShiftV));
        QVERIFY(waitForStage(sender, Stage::started));
        QVERIFY(QTest::qWaitFor([&] { return typed(portal.calls("RemoteDesktop.NotifyKeyboardKeycode")) == "29+ 42+ 47+ 47- 42- 29-"; }, 5000));
    }

    // What the user answers decides what is kept and what the next paste does.
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
        FakePortal portal;
        QVERIFY2(portal.start({"--consent-answer", answer}), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store());
        QString error = "not answered";
        sender.sendThen(PasteKeystroke::controlV, [&](const QString &e) { error = e; });
        QVERIFY(QTest::qWaitFor([&] { return error != "not answered"; }, 10000));
        QCOMPARE(int(sender.stage()), stage);
        QCOMPARE(int(sender.consent()), consent);
        QCOMPARE(!tokens.token.isEmpty(), tokenKept);
        QCOMPARE(error.isEmpty(), stage == int(Stage::started)); // pasted only when every key arrived
        // Never a dead end: the next paste asks again.
        portal.setAnswers("accept", "accept");
        QVERIFY(sender.send(PasteKeystroke::controlV));
        QVERIFY(waitForStage(sender, Stage::started));
    }

    // A key the desktop refuses ends the keystroke, and nothing stays pressed.
    void refusedKeyReleasesTheHeldOnes()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--fail-keycode", "47"}), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store());
        sender.start();
        QVERIFY(waitForStage(sender, Stage::started));
        QString error;
        bool done = false;
        sender.sendThen(PasteKeystroke::controlShiftV, [&](const QString &e) { error = e, done = true; });
        QVERIFY(QTest::qWaitFor([&] { return done; }, 5000));
        QVERIFY(error.contains("did not take"));
        QVERIFY(QTest::qWaitFor([&] { return typed(portal.calls("RemoteDesktop.NotifyKeyboardKeycode")) == "29+ 42+ 42- 29-"; }, 5000));
    }

    // KDE Plasma 5.27 offers version 1: no persistence to ask for.
    void versionOneSendsNoPersistence()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--remote-version", "1"}), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        tokens.token = "stale";
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store());
        sender.start();
        QVERIFY(waitForStage(sender, Stage::started));
        const QJsonObject select = portal.calls("RemoteDesktop.SelectDevices")[0].toArray()[1].toObject();
        QVERIFY(!select.contains("persist_mode"));
        QVERIFY(!select.contains("restore_token"));
    }

    void desktopWithoutRemoteDesktop()
    {
        FakePortal portal;
        QVERIFY2(portal.start({"--remote-version", "0"}), qPrintable(portal.errorText()));
        MemoryTokens tokens;
        RemoteDesktopKeystrokeSender sender(clientOf(portal), tokens.store());
        QCOMPARE(sender.stage(), Stage::failed);
        QVERIFY(!sender.send(PasteKeystroke::controlV));
        QVERIFY(sender.failureReason().contains("RemoteDesktop"));
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (const QString reason = FakePortal::unavailableReason(); !reason.isEmpty())
        return dictora::test::skipAll(qPrintable(reason));
    TestPortalKeystroke tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_portal_keystroke.moc"
