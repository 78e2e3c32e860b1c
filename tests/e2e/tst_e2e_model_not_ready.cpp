#include "E2eSupport.h"

#include <QFile>
#include <QGuiApplication>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

using namespace dictora::test::e2e;

// Without its model the program refuses to record: the press is answered in
// the log, nothing is captured and no record is written.
class TestE2eModelNotReady : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void pressIsRefused_data()
    {
        QTest::addColumn<QString>("situation");
        QTest::newRow("download never answers") << "silent server";
        QTest::newRow("nothing listens") << "refused";
        QTest::newRow("installed file is damaged") << "damaged";
    }

    void pressIsRefused()
    {
        QFETCH(QString, situation);

        // A server that takes the connection and never says a word.
        QTcpServer silent;
        QList<QTcpSocket *> held;
        ModelContract contract = emptyWeightModel();
        if (situation == QLatin1String("silent server")) {
            QVERIFY(silent.listen(QHostAddress::LocalHost));
            connect(&silent, &QTcpServer::newConnection, this, [&] {
                while (QTcpSocket *socket = silent.nextPendingConnection())
                    held.append(socket);
            });
            contract.url = QStringLiteral("http://127.0.0.1:%1/%2").arg(silent.serverPort()).arg(contract.fileName);
        }

        QString why;
        QVERIFY2(beginCase(contract, false, &why), qPrintable(why));
        if (situation == QLatin1String("damaged")) {
            QFile damaged(run->dataDirectory() + QStringLiteral("/Models/") + contract.fileName);
            QVERIFY(damaged.open(QIODevice::WriteOnly));
            damaged.write(QByteArray(int(contract.bytes), 'x'));
        }
        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        if (situation == QLatin1String("silent server"))
            QTRY_VERIFY_WITH_TIMEOUT(!held.isEmpty(), 30000);

        const QString blocked = QStringLiteral("recording blocked because mandatory accuracy model is not ready");
        for (int press = 1; press <= 2; ++press) {
            pressShortcut(keyboard);
            QVERIFY2(run->waitForLines(blocked, press, 30000, &why), qPrintable(why));
        }
        const QStringList messages = run->messages();
        QVERIFY2(messages.filter(QStringLiteral("recording started")).isEmpty(), qPrintable(messages.join(u'\n')));
        QVERIFY2(!messages.contains(QStringLiteral("mandatory accuracy model loaded and ready")),
            qPrintable(messages.join(u'\n')));
        QCOMPARE(run->records().size(), 0);
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eModelNotReady)
#include "tst_e2e_model_not_ready.moc"
