#include "history/TranscriptPresentation.h"
#include "history/TranscriptRecord.h"

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
        // Keys in the canonical decoder's order: tst_journal_fast_path checks a full line takes its path,
        // fuzz_record that any record written (absent optionals omitted, never null) does.
        const auto back = TranscriptRecord::fromJson(line);
        QVERIFY(back);
        QCOMPARE(*back, r);
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
        QTest::newRow("500") << 500LL << "1s";
        QTest::newRow("59500") << 59500LL << "1m 00s";
        QTest::newRow("3599499") << 3599499LL << "59m 59s";
        QTest::newRow("3599500") << 3599500LL << "1h 00m";
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
