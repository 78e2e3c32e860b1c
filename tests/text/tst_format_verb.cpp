// Runs the real `dictora format` in an isolated home: preferences, snippets
// file, switches and usage errors as a script would meet them.
#include "support/TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QtTest>

namespace {

using Run = dictora::test::ProgramRun;

Run runFormat(const QStringList &arguments, const QByteArray &input)
{
    return dictora::test::runProgram(QStringLiteral(DICTORA_BINARY), QStringList{QStringLiteral("format")} + arguments, input);
}

const QByteArray kSnippets = R"([
  {"expansion": "by the way", "id": "3F2504E0-4F89-11D3-9A0C-0305E82C3301", "trigger": "btw"},
  {"expansion": "Best regards.", "id": "3F2504E0-4F89-11D3-9A0C-0305E82C3302", "trigger": " sig "}
])";

} // namespace

class FormatVerbTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void format_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("snippetsFile"); // empty: none written
        QTest::addColumn<QByteArray>("preferences");  // lines of the settings file
        QTest::addColumn<QByteArray>("expected");

        const QStringList none;
        QTest::newRow("UTF-8 through") << none << QByteArray("ça va. über alles 🎉") << QByteArray() << QByteArray()
                                       << QByteArray("Ça va. Über alles 🎉\n");
        QTest::newRow("snippets after formatting") << none << QByteArray("btw it works. thanks sig.") << kSnippets << QByteArray()
                                                   << QByteArray("by the way it works. Thanks Best regards.\n");
        QTest::newRow("--no-snippets") << QStringList{"--no-snippets"} << QByteArray("btw it works.") << kSnippets
                                       << QByteArray() << QByteArray("Btw it works.\n");
        QTest::newRow("--no-format only trims") << QStringList{"--no-format"} << QByteArray(" \n um btw ,x \n\n")
                                                << kSnippets << QByteArray() << QByteArray("um by the way ,x\n");
        QTest::newRow("formatting preference off") << none << QByteArray(" um btw ,x ") << kSnippets
                                                   << QByteArray("transcription.formatting.enabled=false")
                                                   << QByteArray("um by the way ,x\n");
        QTest::newRow("snippets preference off") << none << QByteArray("btw ,x") << kSnippets
                                                 << QByteArray("transcription.snippets.enabled=false") << QByteArray("Btw, x\n");
        QTest::newRow("empty input prints nothing") << none << QByteArray() << kSnippets << QByteArray() << QByteArray();
        QTest::newRow("only fillers prints nothing") << none << QByteArray("um uh\n") << QByteArray() << QByteArray()
                                                     << QByteArray();
    }

    void format()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, snippetsFile);
        QFETCH(QByteArray, preferences);
        QFETCH(QByteArray, expected);

        dictora::test::IsolatedHome home;
        if (!snippetsFile.isEmpty())
            QVERIFY(dictora::test::writeFile(home.dataHome() + QStringLiteral("/Dictora/snippets.json"), snippetsFile));
        if (!preferences.isEmpty())
            QVERIFY(dictora::test::writeFile(home.path() + QStringLiteral("/config/Dictora/Dictora.ini"), "[General]\n" + preferences + '\n'));

        const Run run = runFormat(arguments, input);
        QCOMPARE(run.err, QString());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QString::fromUtf8(expected));
    }

    void usage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("stdoutContains");
        QTest::addColumn<QByteArray>("stderrContains");

        QTest::newRow("help") << QStringList{"--help"} << QByteArray() << 0 << QByteArray("Usage: dictora format")
                              << QByteArray();
        QTest::newRow("unknown option") << QStringList{"--bogus"} << QByteArray("text") << 2 << QByteArray()
                                        << QByteArray("dictora format: unknown option '--bogus'");
        QTest::newRow("stray argument") << QStringList{"hello"} << QByteArray("text") << 2 << QByteArray()
                                        << QByteArray("unexpected argument 'hello'");
        QTest::newRow("invalid UTF-8") << QStringList() << QByteArray("ok \xff\xfe") << 1 << QByteArray()
                                       << QByteArray("not valid UTF-8");
    }

    void usage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, stdoutContains);
        QFETCH(QByteArray, stderrContains);

        dictora::test::IsolatedHome home;
        const Run run = runFormat(arguments, input);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.out.contains(QString::fromUtf8(stdoutContains)), qPrintable(run.out));
        QVERIFY2(run.err.contains(QString::fromUtf8(stderrContains)), qPrintable(run.err));
        if (exitCode != 0)
            QCOMPARE(run.out, QString()); // nothing half-printed
    }
};

QTEST_GUILESS_MAIN(FormatVerbTest)
#include "tst_format_verb.moc"
