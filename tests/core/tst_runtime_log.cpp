#include "core/RuntimeLog.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

class RuntimeLogTest : public QObject {
    Q_OBJECT

    static QStringList readLines(const QString &path) { return QString::fromUtf8(test::readFile(path)).split(u'\n'); }

private Q_SLOTS:
    // One line per message, in its folder; a folder deleted meanwhile is made again.
    void lineFormAndDeletedFolder()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("a/b/runtime.log"));
        RuntimeLog log(path);
        log.write(QStringLiteral("recording started session=ABC target=none"));
        log.write(QString::fromUtf8("café ✓"));
        QStringList lines = readLines(path);
        static const QRegularExpression form(QStringLiteral(R"(^\[\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z\] (.*)$)"));
        QCOMPARE(lines.size(), 3); // two lines and the final line feed
        QVERIFY2(form.match(lines[0]).hasMatch() && lines[2].isEmpty(), qPrintable(lines.join(u'\n')));
        QCOMPARE(form.match(lines[0]).captured(1), QStringLiteral("recording started session=ABC target=none"));
        QCOMPARE(form.match(lines[1]).captured(1), QString::fromUtf8("café ✓"));

        QVERIFY(QDir(dir.filePath(QStringLiteral("a"))).removeRecursively());
        log.write(QStringLiteral("two"));
        lines = readLines(path);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].endsWith(QStringLiteral("] two")));
    }

    // The subsystems' categories reach the installed log; debug lines only
    // when the logging rules ask for them.
    void categoriesReachTheInstalledLog()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("runtime.log"));
        {
            RuntimeLog log(path);
            log.install();
            qCInfo(lcSession).noquote() << "recording started";
            qCDebug(lcSession) << "hidden";
            QLoggingCategory::setFilterRules(QStringLiteral("dictora.*.debug=true"));
            qCDebug(lcAudio).noquote() << "shown";
            QLoggingCategory::setFilterRules(QString());
        }
        qCInfo(lcSession) << "after the log went"; // back to standard error
        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 3);
        QVERIFY(lines[0].endsWith(QStringLiteral("] recording started")));
        QVERIFY(lines[1].endsWith(QStringLiteral("] debug shown")));
    }

    void unwritableLocationDoesNotThrow()
    {
        QTemporaryDir dir;
        QVERIFY(test::writeFile(dir.filePath(QStringLiteral("file")), {}));
        // The "folder" is a plain file, so nothing can be created under it.
        RuntimeLog log(dir.filePath(QStringLiteral("file/runtime.log")));
        log.write(QStringLiteral("lost, reported on stderr"));
        QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("file/runtime.log"))));
    }
};

QTEST_GUILESS_MAIN(RuntimeLogTest)
#include "tst_runtime_log.moc"
