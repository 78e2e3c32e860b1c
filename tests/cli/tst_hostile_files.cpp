#include "history/HistoryTestRecords.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>
#include <QtEndian>

using dictora::test::ProgramRun;
using dictora::test::recordSavedAt;
using dictora::test::utc;
using dictora::test::readFile;
using dictora::test::writeFile;

namespace {

QByteArray deepJson(int depth) { return QByteArray(depth, '[') + QByteArray(depth, ']'); }

// Bytes every hostile file is made of, by name.
QByteArray hostile(const QString &kind)
{
    if (kind == QLatin1String("garbage")) {
        static const char bytes[] = "\x7f" "ELF\x02\x01\x01\x00\x00 not a file of ours }{][";
        return QByteArray(bytes, sizeof bytes - 1);
    }
    if (kind == QLatin1String("invalid utf-8"))
        return QByteArray("[{\"id\":\"\xc3\x28\xff\",\"trigger\":\"\xed\xa0\x80\",\"expansion\":\"x\"}]");
    if (kind == QLatin1String("deep nesting"))
        return deepJson(30000); // far past any parser's limit, small enough to be parsed
    return {};
}

} // namespace

// Every file Dictora reads, replaced by something hostile, read through the
// real command line: a clear message, no crash, and the file left exactly as
// it was (nothing the user had is overwritten).
class HostileFilesTest : public QObject {
    Q_OBJECT

    std::unique_ptr<dictora::test::IsolatedHome> m_home;
    QString m_contract;

    QString at(const QString &name) const { return m_home->path() + u'/' + name; }
    QString dataDir() const { return at(QStringLiteral("data/Dictora")); }
    QString settingsPath() const { return at(QStringLiteral("config/Dictora/Dictora.ini")); }

    ProgramRun dictora(const QStringList &arguments, const QByteArray &input = {}, const QString &contract = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DICTORA_MODEL_CONTRACT"), contract.isEmpty() ? m_contract : contract);
        return dictora::test::runProgram(QStringLiteral(DICTORA_BINARY), arguments, input, env);
    }

    // Writes kind's bytes to path; "huge" is a sparse file of the given size.
    static bool plant(const QString &path, const QString &kind, qint64 hugeBytes)
    {
        if (kind != QLatin1String("huge"))
            return writeFile(path, hostile(kind));
        QFile file(path);
        return writeFile(path, "[") && file.resize(hugeBytes);
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<dictora::test::IsolatedHome>();
        for (const char *sub : {"data/Dictora/Models", "config/Dictora"})
            QDir().mkpath(at(QLatin1String(sub)));
        // The empty-weight test model: it loads and runs, and recognises nothing.
        const QString model = dictora::test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.en.bin");
        QVERIFY(QFile::copy(model, dataDir() + QStringLiteral("/Models/for-tests-ggml-tiny.en.bin")));
        m_contract = at(QStringLiteral("contract.json"));
        const QByteArray contract = "{\"fileName\":\"for-tests-ggml-tiny.en.bin\",\"bytes\":586836,"
                                    "\"sha256\":\"dd6b7796204a1cdf7164666423034e6e1a7a3e9f5c22327b4b7974c4584bd82d\","
                                    "\"url\":\"http://127.0.0.1:9/for-tests-ggml-tiny.en.bin\"}";
        QVERIFY(writeFile(m_contract, contract));
    }

    void snippetsAndSettings_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("message");
        QTest::newRow("snippets garbage") << "snippets" << "garbage" << "snippets not applied: %1 is not valid JSON";
        QTest::newRow("snippets huge") << "snippets" << "huge" << "snippets not applied: %1 is too large to be a snippets file";
        QTest::newRow("snippets deep nesting") << "snippets" << "deep nesting" << "snippets not applied: %1 is not valid JSON";
        QTest::newRow("settings garbage") << "settings" << "garbage" << "settings ignored, defaults used: %1 holds binary data";
        QTest::newRow("settings huge") << "settings" << "huge" << "settings ignored, defaults used: %1 is too large to be a settings file";
        QTest::newRow("settings invalid utf-8") << "settings" << "invalid utf-8" << "settings ignored, defaults used: %1 is not valid UTF-8";
        QTest::newRow("settings deep nesting") << "settings" << "deep nesting" << "settings ignored, defaults used: %1 line 1 is not a setting";
    }
    // `dictora format` reads both files; the text still comes out, with defaults.
    void snippetsAndSettings()
    {
        QFETCH(QString, file);
        QFETCH(QString, kind);
        QFETCH(QString, message);
        const QString path = file == QLatin1String("snippets") ? dataDir() + QStringLiteral("/snippets.json") : settingsPath();
        const ProgramRun clean = dictora({QStringLiteral("format")}, "um so btw it works");
        QCOMPARE(clean.exitCode, 0);
        QVERIFY(plant(path, kind, 64LL << 20));
        const QByteArray before = kind == QLatin1String("huge") ? QByteArray() : readFile(path);
        const qint64 size = QFileInfo(path).size();

        const ProgramRun run = dictora({QStringLiteral("format")}, "um so btw it works");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, clean.out);
        QVERIFY2(run.err.contains(message.arg(path)), qPrintable(run.err));
        QCOMPARE(QFileInfo(path).size(), size);
        if (!before.isEmpty())
            QCOMPARE(readFile(path), before);
    }

    // A deeply nested shortcut value inside a well-formed settings file is
    // just an unusable value: the default shortcut, no message needed.
    void deeplyNestedShortcutValueFallsBack()
    {
        const ProgramRun clean = dictora({QStringLiteral("format")}, "it works");
        QVERIFY(writeFile(settingsPath(), "[General]\nkeyboard.shortcut.v1=" + deepJson(100000) + "\n"));
        const ProgramRun run = dictora({QStringLiteral("format")}, "it works");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, clean.out);
        QCOMPARE(run.err, QString());
    }

    void modelContract_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("message");
        QTest::newRow("huge") << "huge" << "1073741824 bytes is far too large";
        QTest::newRow("deep nesting") << "deep nesting" << "not JSON";
    }
    void modelContract()
    {
        QFETCH(QString, kind);
        QFETCH(QString, message);
        const QString contract = at(QStringLiteral("hostile-contract.json"));
        QVERIFY(plant(contract, kind, 1LL << 30));
        const QString wav = dictora::test::sharedTestData() + QStringLiteral("/speech/jfk.wav");
        const ProgramRun run = dictora({QStringLiteral("transcribe"), wav}, {}, contract);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QStringLiteral("The model contract %1 is unusable: ").arg(contract) + message), qPrintable(run.err));
        QCOMPARE(QFileInfo(at(QStringLiteral("data/Dictora/Models/for-tests-ggml-tiny.en.bin"))).size(), 586836);
    }

    void journal_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("huge") << "huge";
        QTest::newRow("deep nesting") << "deep nesting";
    }
    // Hostile lines between two good records: both records list, the file
    // stays byte for byte. (Garbage and binary lines: tst_transcript_journal's.)
    void journal()
    {
        QFETCH(QString, kind);
        const QString path = dataDir() + QStringLiteral("/transcripts.jsonl");
        const QByteArray first = recordSavedAt(utc("2023-11-14T22:13:20Z"), QStringLiteral("first")).toJsonLine() + '\n';
        const QByteArray last = '\n' + recordSavedAt(utc("2023-11-14T22:13:21Z"), QStringLiteral("last")).toJsonLine() + '\n';
        QVERIFY(writeFile(path, first + hostile(kind)));
        if (kind == QLatin1String("huge")) {
            QFile file(path);
            QVERIFY(file.resize(file.size() + (64LL << 20)));
        }
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::Append) && file.write(last) == last.size());
        }
        const qint64 size = QFileInfo(path).size();
        const ProgramRun run = dictora({QStringLiteral("history"), QStringLiteral("--json")});
        QCOMPARE(run.exitCode, 0);
        const QStringList lines = run.out.split(u'\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QCOMPARE(QJsonDocument::fromJson(lines.at(0).toUtf8()).object().value("transcript").toString(), QStringLiteral("last"));
        QCOMPARE(QJsonDocument::fromJson(lines.at(1).toUtf8()).object().value("transcript").toString(), QStringLiteral("first"));
        QCOMPARE(QFileInfo(path).size(), size);
    }

    void audioFiles_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("damage");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        const QString shortfall = QStringLiteral("ends before the length its header gives");
        QTest::newRow("wav truncated") << "wav" << "truncate" << 0 << shortfall;
        QTest::newRow("wav lies about its length") << "wav" << "lie" << 0 << shortfall;
        QTest::newRow("wav zero channels") << "wav" << "zero channels" << 1 << "could not be read as audio";
        QTest::newRow("flac truncated") << "flac" << "truncate" << 0 << "is damaged after";
        QTest::newRow("ogg truncated") << "ogg" << "truncate" << 1 << "holds no audio that could be decoded";
    }
    void audioFiles()
    {
        QFETCH(QString, format);
        QFETCH(QString, damage);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        if (QStandardPaths::findExecutable(QStringLiteral("sox")).isEmpty())
            QSKIP("sox is not installed (Debian package sox)");
        const QString source = dictora::test::sharedTestData() + QStringLiteral("/speech/jfk.wav");
        const QString path = at(QStringLiteral("speech.") + format);
        QCOMPARE(QProcess::execute(QStringLiteral("sox"), {source, QStringLiteral("-r"), QStringLiteral("16000"),
                                                              QStringLiteral("-c"), QStringLiteral("1"), path, QStringLiteral("trim"),
                                                              QStringLiteral("0"), QStringLiteral("2")}),
            0);
        QByteArray bytes = readFile(path);
        QVERIFY(bytes.size() > 1000);
        // A header that lies is the reader's, whatever the format: the WAV one stands for all.
        if (damage == QLatin1String("truncate")) {
            bytes.truncate(bytes.size() / 2);
        } else {
            // 16-bit mono from sox: "fmt " at 12, channels at 22, "data" size at 40.
            QCOMPARE(bytes.mid(36, 4), QByteArray("data"));
            if (damage == QLatin1String("lie"))
                qToLittleEndian<quint32>(0xFFFFFFF0u, bytes.data() + 40);
            else
                qToLittleEndian<quint16>(0, bytes.data() + 22);
        }
        QVERIFY(writeFile(path, bytes));

        const ProgramRun run = dictora({QStringLiteral("transcribe"), path});
        QVERIFY2(run.exitCode == exitCode, qPrintable(QStringLiteral("exit %1:\n%2").arg(run.exitCode).arg(run.err)));
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        if (exitCode == 0)
            QVERIFY2(run.err.contains(QStringLiteral("(no speech recognised)")), qPrintable(run.err));
        QCOMPARE(readFile(path), bytes);
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(HostileFilesTest)
#include "tst_hostile_files.moc"
