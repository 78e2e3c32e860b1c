// Runs the real `dictora format` in an isolated home: preferences, snippets
// file, switches and usage errors as a script would meet them.
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QtTest>

namespace {

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

Run runFormat(const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(QStringLiteral(DICTORA_BINARY), QStringList{QStringLiteral("format")} + arguments);
    if (!process.waitForStarted())
        return {};
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

const QByteArray kSnippets = R"([
  {"expansion": "by the way", "id": "3F2504E0-4F89-11D3-9A0C-0305E82C3301", "trigger": "btw"},
  {"expansion": "Best regards.", "id": "3F2504E0-4F89-11D3-9A0C-0305E82C3302", "trigger": " sig "}
])";

} // namespace

class FormatVerbTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void format_data();
    void format();
    void usage_data();
    void usage();
    void unreadableSnippetsAreReportedAndKept();
};

void FormatVerbTest::format_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("snippetsFile"); // empty: none written
    QTest::addColumn<QString>("preferences");     // "formatting=false,snippets=false"
    QTest::addColumn<QByteArray>("expected");

    const QStringList none;
    QTest::newRow("formats") << none << QByteArray("um hello ,world .how are you\n") << QByteArray() << ""
                             << QByteArray("Hello, world. How are you\n");
    QTest::newRow("spoken list")
        << none << QByteArray("Okay, here are three bullet points: one, milk. Two, eggs. Three, bread. Thanks.")
        << QByteArray() << "" << QByteArray("Here are some bullet points:\n\n1. Milk\n2. Eggs\n3. Bread\n\nThanks.\n");
    QTest::newRow("UTF-8 through") << none << QByteArray("ça va. über alles 🎉") << QByteArray() << ""
                                   << QByteArray("Ça va. Über alles 🎉\n");
    QTest::newRow("snippets after formatting") << none << QByteArray("btw it works. thanks sig.") << kSnippets << ""
                                               << QByteArray("by the way it works. Thanks Best regards.\n");
    QTest::newRow("--no-snippets") << QStringList{"--no-snippets"} << QByteArray("btw it works.") << kSnippets
                                   << "" << QByteArray("Btw it works.\n");
    QTest::newRow("--no-format only trims") << QStringList{"--no-format"} << QByteArray(" \n um btw ,x \n\n")
                                            << kSnippets << "" << QByteArray("um by the way ,x\n");
    QTest::newRow("both switches") << QStringList{"--no-format", "--no-snippets"} << QByteArray("\tum btw ,x  ")
                                   << kSnippets << "" << QByteArray("um btw ,x\n");
    QTest::newRow("formatting preference off") << none << QByteArray(" um btw ,x ") << kSnippets
                                               << "formatting=false" << QByteArray("um by the way ,x\n");
    QTest::newRow("snippets preference off") << none << QByteArray("btw ,x") << kSnippets << "snippets=false"
                                             << QByteArray("Btw, x\n");
    QTest::newRow("preferences on explicitly") << none << QByteArray("btw ,x") << kSnippets
                                               << "formatting=true,snippets=true" << QByteArray("by the way, x\n");
    QTest::newRow("empty input prints nothing") << none << QByteArray() << kSnippets << "" << QByteArray();
    QTest::newRow("only fillers prints nothing") << none << QByteArray("um uh\n") << QByteArray() << ""
                                                 << QByteArray();
}

void FormatVerbTest::format()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, snippetsFile);
    QFETCH(QString, preferences);
    QFETCH(QByteArray, expected);

    dictora::test::IsolatedHome home;
    if (!snippetsFile.isEmpty()) {
        const QString dir = QDir(home.dataHome()).filePath(QStringLiteral("Dictora"));
        QVERIFY(QDir().mkpath(dir));
        QFile file(QDir(dir).filePath(QStringLiteral("snippets.json")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(snippetsFile);
    }
    if (!preferences.isEmpty()) {
        QSettings settings(QDir(home.path()).filePath(QStringLiteral("config/Dictora/Dictora.ini")), QSettings::IniFormat);
        for (const QString &pair : preferences.split(u',')) {
            const QString name = pair.section(u'=', 0, 0);
            const bool value = pair.section(u'=', 1) == QLatin1String("true");
            settings.setValue(name == QLatin1String("formatting") ? QStringLiteral("transcription.formatting.enabled")
                                                                  : QStringLiteral("transcription.snippets.enabled"),
                              value);
        }
        settings.sync();
        QCOMPARE(settings.status(), QSettings::NoError);
    }

    const Run run = runFormat(arguments, input);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, expected);
}

void FormatVerbTest::usage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("stdoutContains");
    QTest::addColumn<QByteArray>("stderrContains");

    QTest::newRow("help") << QStringList{"--help"} << QByteArray() << 0 << QByteArray("Usage: dictora format")
                          << QByteArray();
    QTest::newRow("help wins") << QStringList{"--bogus", "--help"} << QByteArray() << 0
                               << QByteArray("--no-snippets") << QByteArray();
    QTest::newRow("unknown option") << QStringList{"--bogus"} << QByteArray("text") << 2 << QByteArray()
                                    << QByteArray("dictora format: unknown option '--bogus'");
    QTest::newRow("stray argument") << QStringList{"hello"} << QByteArray("text") << 2 << QByteArray()
                                    << QByteArray("unexpected argument 'hello'");
    QTest::newRow("invalid UTF-8") << QStringList() << QByteArray("ok \xff\xfe") << 1 << QByteArray()
                                   << QByteArray("not valid UTF-8");
}

void FormatVerbTest::usage()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, input);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, stdoutContains);
    QFETCH(QByteArray, stderrContains);

    dictora::test::IsolatedHome home;
    const Run run = runFormat(arguments, input);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.out.contains(stdoutContains), run.out.constData());
    QVERIFY2(run.err.contains(stderrContains), run.err.constData());
    if (exitCode != 0)
        QCOMPARE(run.out, QByteArray()); // nothing half-printed
}

void FormatVerbTest::unreadableSnippetsAreReportedAndKept()
{
    dictora::test::IsolatedHome home;
    const QString dir = QDir(home.dataHome()).filePath(QStringLiteral("Dictora"));
    QVERIFY(QDir().mkpath(dir));
    const QString path = QDir(dir).filePath(QStringLiteral("snippets.json"));
    const QByteArray corrupt = "[{\"trigger\": \"btw\"";
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(corrupt);
    }
    const Run run = runFormat({}, "btw ok");
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray("Btw ok\n"));
    QVERIFY2(run.err.contains("snippets not applied") && run.err.contains("snippets.json"), run.err.constData());
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), corrupt);
}

QTEST_GUILESS_MAIN(FormatVerbTest)
#include "tst_format_verb.moc"
