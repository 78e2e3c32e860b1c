#include "E2eSupport.h"

#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

using namespace dictora::test::e2e;

// `dictora model install` while the running program is still downloading
// (from a server that never finishes): the program drops the download, loads
// the installed file and becomes ready without a restart.
class TestE2eModelInstall : public E2eCase {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { endCase(); }

    void installDuringDownload()
    {
        QTcpServer silent;
        QList<QTcpSocket *> held;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        connect(&silent, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket *socket = silent.nextPendingConnection())
                held.append(socket);
        });
        ModelContract contract = emptyWeightModel();
        contract.url = QStringLiteral("http://127.0.0.1:%1/%2").arg(silent.serverPort()).arg(contract.fileName);

        QString why;
        QVERIFY2(beginCase(contract, false, &why), qPrintable(why));
        QVERIFY2(run->start(dictoraBinary(), &why), qPrintable(why));
        QTRY_VERIFY_WITH_TIMEOUT(!held.isEmpty(), 30000); // the download is under way

        QProcess install;
        install.setProcessEnvironment(run->environment());
        install.start(dictoraBinary(), {QStringLiteral("model"), QStringLiteral("install"), testModelPath(contract.fileName)});
        QVERIFY(install.waitForFinished(60000));
        const QString said = QString::fromUtf8(install.readAllStandardOutput() + install.readAllStandardError());
        QVERIFY2(install.exitCode() == 0, qPrintable(said));
        QVERIFY2(said.contains(QStringLiteral("The running Dictora is loading it now.")), qPrintable(said));

        QVERIFY2(run->waitUntilModelReady(&why), qPrintable(why));
        const QString models = run->dataDirectory() + QStringLiteral("/Models/");
        QVERIFY(!QFile::exists(models + contract.fileName + QStringLiteral(".partial")));
        QCOMPARE(QFileInfo(models + contract.fileName).size(), contract.bytes);

        QProcess status;
        status.setProcessEnvironment(run->environment());
        status.start(dictoraBinary(), {QStringLiteral("model"), QStringLiteral("status")});
        QVERIFY(status.waitForFinished(60000));
        const QString shown = QString::fromUtf8(status.readAllStandardOutput());
        QVERIFY2(shown.contains(QStringLiteral("verified: yes")), qPrintable(shown));
        QVERIFY2(shown.contains(QStringLiteral("running:  Accuracy model ready")), qPrintable(shown));
    }
};

DICTORA_E2E_TEST_MAIN(TestE2eModelInstall)
#include "tst_e2e_model_install.moc"
