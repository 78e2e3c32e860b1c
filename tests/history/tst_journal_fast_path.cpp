// The fast ways of reading the journal (canonical line decoder, newest-first
// scan, History store) against the general decoder line by line: tricky
// lines, every one-byte edit of a full line, generated damaged journals.
#include "HistoryTestRecords.h"
#include "history/HistoryStore.h"
#include "history/JournalLineDecoder.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;
using dictora::test::referenceRead;
using dictora::test::writeFile;

namespace {

// Empty when the canonical path (where it answers) and the journal's decoder
// read `line` as the general decoder does.
QString decoderMismatch(const QByteArray &line)
{
    const auto general = TranscriptRecord::fromJson(line);
    const auto fast = JournalLineDecoder::decodeCanonical(line);
    const auto says = [&line](const char *what) {
        return QString::fromLatin1(what) + QStringLiteral(" (%1 bytes): ").arg(line.size())
            + QString::fromLatin1(line.left(400).toPercentEncoding("{}\":,[]-_.! "));
    };
    if (fast && !general)
        return says("only the canonical decoder accepts");
    if (fast && !(*fast == *general))
        return says("the canonical decoder reads a different record from");
    if (JournalLineDecoder::decode(line) != general)
        return says("the journal's decoder differs from the general one on");
    return {};
}

// A line with every field, as the journal writes it.
QByteArray fullLine()
{
    TranscriptRecord r = test::recordSavedAt(test::utc("2026-11-15T10:00:00.123Z"), QString::fromUtf8("caf\u00e9 \U0001F600"),
        QStringLiteral("{e621e1f8-c36c-495a-93fc-0c247a3e6e5f}"));
    r.targetApplication = TargetApplication{QStringLiteral("Text Editor"), QStringLiteral("gedit"), 42};
    r.error = QStringLiteral("No external target application was focused when recording began.");
    r.earsDurationMilliseconds = 640;
    r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
    r.language = QStringLiteral("de");
    r.finalizationDurationMilliseconds = 812;
    r.pasteDispatchDurationMilliseconds = 35;
    return r.toJsonLine();
}

// The oldest record shape, with one key replaced (JSON text) or, without a
// replacement, removed.
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

// The display order as first written: sort by savedAt, ties by id string.
QList<TranscriptRecord> referenceOrder(QList<TranscriptRecord> records)
{
    std::stable_sort(records.begin(), records.end(), [](const TranscriptRecord &a, const TranscriptRecord &b) {
        if (a.savedAt != b.savedAt)
            return a.savedAt > b.savedAt;
        return uuidString(a.id) > uuidString(b.id);
    });
    return records;
}

TranscriptRecord randomRecord(QRandomGenerator &rng, qint64 savedAt)
{
    static const QStringList words{QStringLiteral("budget"), QString::fromUtf8("café"), QStringLiteral("line\nbreak"),
        QStringLiteral("\"quoted\""), QStringLiteral("back\\slash"), QString::fromUtf8("😀"), QStringLiteral("a/b"),
        QStringLiteral("tab\there"), QString::fromUtf8("naïve"), QStringLiteral("\u2028"), QString(QChar(1))};
    TranscriptRecord r = test::recordSavedAt(QDateTime::fromMSecsSinceEpoch(savedAt, Qt::UTC), QString());
    QStringList text;
    for (int i = int(rng.bounded(12)); i > 0; --i)
        text << words.at(rng.bounded(int(words.size())));
    r.transcript = text.join(QLatin1Char(' '));
    const auto maybe = [&] { return rng.bounded(2) == 0; };
    if (maybe())
        r.targetApplication = TargetApplication{QStringLiteral("Editor"),
            maybe() ? std::optional<QString>(QStringLiteral("gedit")) : std::nullopt, int(rng.bounded(100000))};
    if (maybe())
        r.error = QStringLiteral("No external target application was focused when recording began.");
    if (maybe())
        r.earsDurationMilliseconds = rng.bounded(5000);
    if (maybe())
        r.transcriptionEngine = QStringLiteral("exact-local-large-v3-turbo-q5_0");
    if (maybe())
        r.language = QStringLiteral("en");
    r.outcome = TranscriptOutcome(rng.bounded(5));
    r.finalizationDurationMilliseconds = -qint64(rng.bounded(3)); // negatives are still integers
    return r;
}

// A damaged variant of a good line, of the kinds a journal meets.
QByteArray damaged(QRandomGenerator &rng, const QByteArray &line)
{
    switch (rng.bounded(9)) {
    case 0: return line.left(int(rng.bounded(int(line.size())))); // cut short
    case 1: return line + '\r';                                    // CRLF
    case 2: return QByteArray(line).replace("\"outcome\":\"", "\"outcome\":\"X");
    case 3: return QByteArray(line).replace("\"savedAt\":", "\"savedAt\":\"") ; // wrong type
    case 4: return QByteArray(line).replace("Editor", "Ed\xff\xfeitor");       // invalid UTF-8
    case 5: return QByteArray(line).replace("\"id\":", "\"zd\":");              // missing key
    case 6: return line + line;                                                 // two records fused
    case 7: return QByteArray(line).replace(":", " : ");                        // foreign but valid
    default: return QByteArray(line).replace("}", ",\"extra\":[[[[1]]]]}");     // unknown key
    }
}

// A journal of good and damaged lines; savedAt mostly rising, with ties and
// a clock that jumps back now and then.
QByteArray generatedJournal(quint32 seed, int lines)
{
    QRandomGenerator rng(seed);
    QByteArray bytes;
    qint64 at = 1'700'000'000'000;
    for (int i = 0; i < lines; ++i) {
        const int step = int(rng.bounded(10));
        at += step == 0 ? 0 : step == 1 ? -3'600'000 : qint64(rng.bounded(100'000));
        const QByteArray line = randomRecord(rng, at).toJsonLine();
        bytes += rng.bounded(6) == 0 ? damaged(rng, line) : line;
        bytes += rng.bounded(30) == 0 ? "\n\n" : "\n";
    }
    if (rng.bounded(2))
        bytes.chop(1); // no final line feed
    return bytes;
}

} // namespace

class JournalFastPathTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString journalPath() const { return m_dir.filePath(QStringLiteral("transcripts.jsonl")); }

private Q_SLOTS:
    // One line each: whether the general decoder takes it, and whether the
    // canonical fast path does (never a line the general one refuses, and
    // always with the same record).
    void lineDecoding_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<bool>("decodes");
        QTest::addColumn<bool>("canonical");
        const QByteArray good = fullLine();
        const QByteArray id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
        const auto with = [&](const char *from, const char *to) { return QByteArray(good).replace(from, to); };
        const auto text = [&](const char *to) { return with("caf\xc3\xa9", to); };
        const auto ears = [&](const char *to) { return with("\"earsDurationMilliseconds\":640", QByteArray("\"earsDurationMilliseconds\":") + to); };
        const auto add = [](const char *row, const QByteArray &line, bool decodes, bool canonical) {
            QTest::newRow(row) << line << decodes << canonical;
        };
        add("as written", good, true, true);
        add("minimal older record", minimalLine(), true, true);
        add("every outcome: recovered", minimalLine("outcome", "\"recovered\""), true, true);
        add("unknown key ignored", minimalLine("futureField", "{\"a\":1}"), true, false);
        add("null optional", minimalLine("error", "null"), true, false);
        add("fractional date", minimalLine("savedAt", "2000.75"), true, false);
        add("id lower case", with(id, id.toLower()), true, true);
        add("target without bundle", with("\"bundleIdentifier\":\"gedit\",", ""), true, true);
        add("missing total", minimalLine("totalDurationMilliseconds"), false, false);
        add("missing transcript", minimalLine("transcript"), false, false);
        add("missing id", minimalLine("id"), false, false);
        add("outcome wrong case", minimalLine("outcome", "\"Pasted\""), false, false);
        add("outcome unknown", minimalLine("outcome", "\"skipped\""), false, false);
        add("braced uuid", minimalLine("id", "\"{6f1c2b9a-3d4e-4f50-8a61-72b3c4d5e6f7}\""), false, false);
        add("nil id", with(id, "00000000-0000-0000-0000-000000000000"), false, false);
        add("duration fractional", minimalLine("recordingDurationMilliseconds", "2.5"), false, false);
        add("date as ISO text", minimalLine("savedAt", "\"2026-01-01T00:00:00Z\""), false, false);
        add("transcript null", minimalLine("transcript", "null"), false, false);
        add("target without pid", minimalLine("targetApplication", "{\"name\":\"x\"}"), false, false);
        add("target not object", minimalLine("targetApplication", "\"x\""), false, false);
        add("language wrong type", minimalLine("language", "7"), false, false);
        // Text: escapes and UTF-8 the fast path takes or leaves to the general decoder.
        add("escapes", text("a\\n\\\"b\\\\\\/\\t\\u00e9\\u2028"), true, true);
        add("control escapes, upper-case hex", text("\\b\\f\\r\\u001F"), true, true);
        add("raw four-byte UTF-8", text("\xf0\x9f\x98\x80"), true, true);
        add("largest code point", text("\xf4\x8f\xbf\xbf"), true, true);
        add("overlong", text("\xc0\xaf"), false, false);
        add("encoded surrogate", text("\xed\xa0\x80"), false, false);
        add("beyond U+10FFFF", text("\xf4\x90\x80\x80"), false, false);
        add("short unicode escape", text("\\u00e"), false, false);
        add("escaped key", with("\"outcome\"", "\"o\\u0075tcome\""), true, false);
        // Numbers.
        add("exponent", ears("6.4e2"), true, false);
        add("15 digits", ears("999999999999999"), true, true);
        add("16 digits", ears("1234567890123456"), true, false);
        add("pid beyond int32", with("\"processIdentifier\":42", "\"processIdentifier\":2147483648"), false, false);
        // Shape. (Spaces, key order, duplicate keys, surrogate escapes and raw
        // controls in valid JSON: fuzz_record's seeds, read alike by both decoders.)
        add("CRLF", good + '\r', true, false);
        add("duplicate key in target", with("\"name\":\"Text Editor\"", "\"name\":\"A\",\"name\":\"Text Editor\""), true, false);
        add("unknown key in target", with("\"processIdentifier\":42}", "\"processIdentifier\":42,\"zz\":{}}"), true, false);
        add("target without name", with("\"name\":\"Text Editor\",", ""), false, false);
    }
    void lineDecoding()
    {
        QFETCH(QByteArray, line);
        QFETCH(bool, decodes);
        QFETCH(bool, canonical);
        QCOMPARE(TranscriptRecord::fromJson(line).has_value(), decodes);
        QCOMPARE(JournalLineDecoder::decodeCanonical(line).has_value(), canonical);
        const QString mismatch = decoderMismatch(line);
        QVERIFY2(mismatch.isEmpty(), qPrintable(mismatch));
    }

    // One byte of a full line changed, dropped or doubled, at every position.
    void everyByteEditDecodesAlike_data()
    {
        QTest::addColumn<QByteArray>("with"); // replacement; empty: drop, "*": double
        QTest::newRow("dropped") << QByteArray();
        QTest::newRow("doubled") << QByteArray("*");
        for (const char *b : {"\"", "\\", ",", ":", "{", "}", "[", " ", "0", "9", "-", ".", "e", "u", "n", "\r",
                 "\x01", "\x80", "\xc3", "\xff"})
            QTest::addRow("0x%02x", unsigned(static_cast<unsigned char>(*b))) << QByteArray(b);
    }
    void everyByteEditDecodesAlike()
    {
        QFETCH(QByteArray, with);
        const QByteArray line = fullLine();
        QVERIFY(JournalLineDecoder::decodeCanonical(line)); // the unedited line takes the fast path
        for (qsizetype i = 0; i < line.size(); ++i) {
            QByteArray edited = line;
            if (with.isEmpty())
                edited.remove(i, 1);
            else if (with == "*")
                edited.insert(i, line.at(i));
            else
                edited[i] = with.at(0);
            const QString mismatch = decoderMismatch(edited);
            QVERIFY2(mismatch.isEmpty(), qPrintable(QStringLiteral("at byte %1: ").arg(i) + mismatch));
        }
    }

    // Generated journals over 1 MiB (decoded on every core) and large enough
    // that History shows the newest page before the rest.
    void readersEqualLineByLineDecode_data()
    {
        QTest::addColumn<quint32>("seed");
        for (quint32 seed : {1u, 2u, 3u, 4u, 5u})
            QTest::addRow("seed %u", seed) << seed;
    }
    void readersEqualLineByLineDecode()
    {
        QFETCH(quint32, seed);
        const QByteArray bytes = generatedJournal(seed, 4000);
        QVERIFY(writeFile(journalPath(), bytes));
        const QList<TranscriptRecord> expected = referenceRead(bytes);
        QVERIFY(expected.size() > 2000);
        TranscriptJournal journal(journalPath());
        QCOMPARE(journal.readAll(), expected);
        // 64-byte blocks: most lines span several, so their parts must be put back in order.
        for (const auto &[first, chunk] : {std::pair<qint64, qint64>{1, 3000}, {7, 64}, {100, 37 * 1024}, {4096, 65536},
                 {1 << 30, 1 << 30}}) {
            QList<QList<TranscriptRecord>> batches;
            bool last = false, afterLast = false;
            journal.readNewestFirst(first, chunk, [&](const QByteArray &lines, bool more) {
                afterLast = afterLast || last;
                last = !more;
                batches.prepend(TranscriptJournal::decodeLines(lines));
                return true;
            });
            QList<TranscriptRecord> scanned;
            for (const auto &batch : batches)
                scanned.append(batch);
            QCOMPARE(scanned, expected);
            QVERIFY(last && !afterLast); // only the oldest batch says nothing more is coming
        }

        HistoryStore store{journal};
        QList<QList<TranscriptRecord>> seen;
        QList<bool> partial;
        connect(&store, &HistoryStore::recordsChanged, this, [&] {
            seen << store.records();
            partial << store.isLoadingOlder();
        });
        QSignalSpy reloaded(&store, &HistoryStore::reloaded);
        store.reload();
        QVERIFY(reloaded.wait(20000));
        QCOMPARE(store.records(), expected);
        QCOMPARE(store.filteredRecords(), referenceOrder(expected));
        QVERIFY(!store.isLoadingOlder());

        // The first page is the newest lines of the same file, flagged as partial.
        QCOMPARE(seen.size(), 2);
        QCOMPARE(partial, (QList<bool>{true, false}));
        const QList<TranscriptRecord> &page = seen.first();
        QVERIFY(!page.isEmpty() && page.size() < expected.size());
        QCOMPARE(page, expected.mid(expected.size() - page.size()));

        // Search over the prepared keys matches a search over the records.
        store.setQuery(QString::fromUtf8("CAFE"));
        QCOMPARE(store.filteredRecords(), HistoryFilter::apply(expected, HistoryQuery{QStringLiteral("cafe")}));
        QVERIFY(!store.filteredRecords().isEmpty());
    }

    void reloadsAskedDuringALoadSeeTheLatestFile()
    {
        QVERIFY(writeFile(journalPath(), generatedJournal(9, 2000)));
        HistoryStore store{TranscriptJournal(journalPath())};
        QSignalSpy reloaded(&store, &HistoryStore::reloaded);
        store.reload();
        // Appended while the first read runs: the second reload must show it.
        const TranscriptRecord late = test::recordSavedAt(test::utc("2030-01-01T00:00:00Z"), QStringLiteral("late"));
        TranscriptJournal(journalPath()).append(late);
        store.reload();
        QTRY_COMPARE_WITH_TIMEOUT(reloaded.count(), 2, 20000);
        QCOMPARE(store.records().last(), late);
        QCOMPARE(store.filteredRecords().first(), late);
    }
};

QTEST_GUILESS_MAIN(JournalFastPathTest)
#include "tst_journal_fast_path.moc"
