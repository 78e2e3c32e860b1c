#include "core/RuntimeLog.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

class RuntimeLogTest : public QObject {
    Q_OBJECT

    static QStringList readLines(const QString &path)
    {
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'));
    }

private Q_SLOTS:
    void lineForm()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("runtime.log"));
        RuntimeLog log(path);
        log.write(QStringLiteral("recording started session=ABC target=none"));
        log.write(QString::fromUtf8("café ✓"));
        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 3); // two lines and the final line feed
        static const QRegularExpression form(
            QStringLiteral(R"(^\[\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z\] (.*)$)"));
        const auto first = form.match(lines[0]);
        QVERIFY2(first.hasMatch(), qPrintable(lines[0]));
        QCOMPARE(first.captured(1), QStringLiteral("recording started session=ABC target=none"));
        QCOMPARE(form.match(lines[1]).captured(1), QString::fromUtf8("café ✓"));
        QCOMPARE(lines[2], QString());
    }

    void recreatesDeletedFolder()
    {
        QTemporaryDir dir;
        const QString folder = dir.filePath(QStringLiteral("a/b"));
        const QString path = folder + QStringLiteral("/runtime.log");
        RuntimeLog log(path);
        log.write(QStringLiteral("one"));
        QVERIFY(QDir(dir.filePath(QStringLiteral("a"))).removeRecursively());
        log.write(QStringLiteral("two"));
        const QStringList lines = readLines(path);
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
        QVERIFY(dictora::test::writeFile(dir.filePath(QStringLiteral("file")), {}));
        // The "folder" is a plain file, so nothing can be created under it.
        RuntimeLog log(dir.filePath(QStringLiteral("file/runtime.log")));
        log.write(QStringLiteral("lost, reported on stderr"));
        QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("file/runtime.log"))));
    }
};

QTEST_GUILESS_MAIN(RuntimeLogTest)
#include "tst_runtime_log.moc"
