#include "history/TranscriptPresentation.h"
#include "history/TranscriptRecord.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace dictora;

namespace {

TranscriptRecord fullRecord()
{
    TranscriptRecord r;
    r.id = QUuid(QStringLiteral("6f1c2b9a-3d4e-4f50-8a61-72b3c4d5e6f7"));
    r.recordingStartedAt = QDateTime::fromMSecsSinceEpoch(1763700000123, Qt::UTC);
    r.recordingEndedAt = r.recordingStartedAt.addMSecs(4200);
    r.savedAt = r.recordingEndedAt.addMSecs(900);
    r.targetApplication = TargetApplication{QStringLiteral("Text \"Editor\"/2"), QStringLiteral("org.example.Editor"), 4242};
    r.transcript = QString::fromUtf8("Line one\nline \"two\" \\ / café 👋\t\u0001");
    r.recordingDurationMilliseconds = 4200;
    r.finalizationDurationMilliseconds = 850;
    r.pasteDispatchDurationMilliseconds = 12;
    r.totalDurationMilliseconds = 5100;
    r.outcome = TranscriptOutcome::pasted;
    r.error = QStringLiteral("none/really");
    r.earsDurationMilliseconds = 840;
    r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
    r.language = QStringLiteral("de");
    return r;
}

QByteArray minimalLine(const char *replaceKey = nullptr, const char *replacement = nullptr)
{
    QByteArray line = R"({"finalizationDurationMilliseconds":1,"id":"6F1C2B9A-3D4E-4F50-8A61-72B3C4D5E6F7",)"
                      R"("outcome":"empty","pasteDispatchDurationMilliseconds":0,"recordingDurationMilliseconds":2,)"
                      R"("recordingEndedAt":1000,"recordingStartedAt":0,"savedAt":2000,"totalDurationMilliseconds":3,"transcript":""})";
    if (replaceKey) {
        QJsonObject o = QJsonDocument::fromJson(line).object();
        if (replacement)
            o.insert(QLatin1String(replaceKey), QJsonDocument::fromJson(QByteArray("[") + replacement + "]").array().at(0));
        else
            o.remove(QLatin1String(replaceKey));
        line = QJsonDocument(o).toJson(QJsonDocument::Compact);
    }
    return line;
}

} // namespace

class TranscriptRecordTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void fullRecordEncodesAndRoundTrips()
    {
        const TranscriptRecord r = fullRecord();
        const QByteArray line = r.toJsonLine();
        QVERIFY(!line.contains('\n'));
        QVERIFY(line.contains("\"name\":\"Text \\\"Editor\\\"/2\"")); // slashes stay unescaped
        QVERIFY(line.contains("6F1C2B9A-3D4E-4F50-8A61-72B3C4D5E6F7"));
        QVERIFY(line.contains("\"recordingStartedAt\":1763700000123"));
        // Keys in the canonical decoder's order: tst_journal_fast_path checks a full line takes its path.
        const auto back = TranscriptRecord::fromJson(line);
        QVERIFY(back);
        QCOMPARE(*back, r);
    }

    void absentOptionalsAreOmitted()
    {
        TranscriptRecord r = fullRecord();
        r.targetApplication.reset();
        r.error.reset();
        r.earsDurationMilliseconds.reset();
        r.transcriptionEngine.reset();
        r.language.reset();
        const QByteArray line = r.toJsonLine();
        for (const char *key : {"targetApplication", "error", "earsDurationMilliseconds", "transcriptionEngine", "language", "null"})
            QVERIFY2(!line.contains(key), key);
        QCOMPARE(*TranscriptRecord::fromJson(line), r);

        r = fullRecord();
        r.targetApplication->bundleIdentifier.reset();
        QVERIFY(!r.toJsonLine().contains("bundleIdentifier"));
        QCOMPARE(*TranscriptRecord::fromJson(r.toJsonLine()), r);
    }

    void decoding_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<bool>("decodes");
        QTest::newRow("minimal older record") << minimalLine() << true;
        QTest::newRow("unknown key ignored") << minimalLine("futureField", "{\"a\":1}") << true;
        QTest::newRow("null optional") << minimalLine("error", "null") << true;
        QTest::newRow("lower-case uuid") << minimalLine("id", "\"6f1c2b9a-3d4e-4f50-8a61-72b3c4d5e6f7\"") << true;
        QTest::newRow("fractional date") << minimalLine("savedAt", "2000.75") << true;
        QTest::newRow("every outcome: recovered") << minimalLine("outcome", "\"recovered\"") << true;
        QTest::newRow("outcome wrong case") << minimalLine("outcome", "\"Pasted\"") << false;
        QTest::newRow("outcome unknown") << minimalLine("outcome", "\"skipped\"") << false;
        QTest::newRow("missing total") << minimalLine("totalDurationMilliseconds") << false;
        QTest::newRow("missing transcript") << minimalLine("transcript") << false;
        QTest::newRow("missing id") << minimalLine("id") << false;
        QTest::newRow("bad uuid") << minimalLine("id", "\"not-a-uuid\"") << false;
        QTest::newRow("braced uuid") << minimalLine("id", "\"{6f1c2b9a-3d4e-4f50-8a61-72b3c4d5e6f7}\"") << false;
        QTest::newRow("duration as string") << minimalLine("recordingDurationMilliseconds", "\"2\"") << false;
        QTest::newRow("duration fractional") << minimalLine("recordingDurationMilliseconds", "2.5") << false;
        QTest::newRow("date as ISO text") << minimalLine("savedAt", "\"2026-01-01T00:00:00Z\"") << false;
        QTest::newRow("transcript null") << minimalLine("transcript", "null") << false;
        QTest::newRow("target without pid") << minimalLine("targetApplication", "{\"name\":\"x\"}") << false;
        QTest::newRow("target without bundle") << minimalLine("targetApplication", "{\"name\":\"x\",\"processIdentifier\":7}") << true;
        QTest::newRow("target not object") << minimalLine("targetApplication", "\"x\"") << false;
        QTest::newRow("language") << minimalLine("language", "\"fr\"") << true;
        QTest::newRow("language wrong type") << minimalLine("language", "7") << false;
        QTest::newRow("ears wrong type") << minimalLine("earsDurationMilliseconds", "\"840\"") << false;
        QTest::newRow("truncated") << minimalLine().left(60) << false;
        QTest::newRow("array") << QByteArray("[1,2]") << false;
    }
    void decoding()
    {
        QFETCH(QByteArray, line);
        QFETCH(bool, decodes);
        QCOMPARE(TranscriptRecord::fromJson(line).has_value(), decodes);
    }

    void rowPreview_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("preview");
        QStringList sixteen, fifteen;
        for (int i = 1; i <= 16; ++i)
            sixteen << QString::number(i);
        fifteen = sixteen.mid(0, 15);
        QTest::newRow("collapses whitespace") << "a  b\nc" << "a b c";
        QTest::newRow("fifteen words whole") << fifteen.join("  ") << fifteen.join(" ");
        QTest::newRow("sixteen words elided") << sixteen.join(" ") << QString::fromUtf8("1 2 3 4 5 6 7 8 9 … 11 12 13 14 15 16");
        QTest::newRow("unicode spaces") << QString::fromUtf8("a\u00a0b\u2003c") << "a b c";
        QTest::newRow("empty") << "" << "";
    }
    void rowPreview()
    {
        QFETCH(QString, text);
        QFETCH(QString, preview);
        QCOMPARE(TranscriptPresentation::rowPreview(text, 9, 6), preview);
    }

    void durationLabel_data()
    {
        QTest::addColumn<qint64>("ms");
        QTest::addColumn<QString>("label");
        QTest::newRow("499") << 499LL << "0s";
        QTest::newRow("500") << 500LL << "1s";
        QTest::newRow("59499") << 59499LL << "59s";
        QTest::newRow("59500") << 59500LL << "1m 00s";
        QTest::newRow("65000") << 65000LL << "1m 05s";
        QTest::newRow("3599499") << 3599499LL << "59m 59s";
        QTest::newRow("3599500") << 3599500LL << "1h 00m";
        QTest::newRow("3725000") << 3725000LL << "1h 02m";
        QTest::newRow("negative") << -5LL << "0s";
        QTest::newRow("negative half") << -500LL << "0s";
    }
    void durationLabel()
    {
        QFETCH(qint64, ms);
        QFETCH(QString, label);
        QCOMPARE(TranscriptPresentation::durationLabel(ms), label);
    }
};

QTEST_GUILESS_MAIN(TranscriptRecordTest)
#include "tst_transcript_record.moc"
