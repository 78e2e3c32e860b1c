// The fast ways of reading the journal against the reference: the canonical
// line decoder against the general one (tricky lines, every fuzz seed torn
// anywhere, every one-byte edit of a full line), the newest-first scan against
// readAll, and the History store against a line-by-line decode, on generated
// journals full of damaged lines.
#include "HistoryTestRecords.h"
#include "history/HistoryStore.h"
#include "history/JournalLineDecoder.h"
#include "history/TranscriptHistoryArchive.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;
using dictora::test::readFile;
using dictora::test::writeFile;

namespace {

// Empty when the journal's decoders read `line` as the general one does: the
// canonical path, where it answers, with the same record, and the reader's
// decode always with the general decoder's answer.
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

// What the journal must yield: every line decoded on its own by the general decoder.
QList<TranscriptRecord> referenceRead(const QByteArray &bytes)
{
    QList<TranscriptRecord> records;
    for (const QByteArray &line : bytes.split('\n')) {
        if (line.isEmpty() || line.endsWith('\r'))
            continue;
        if (auto r = TranscriptRecord::fromJson(line))
            records.append(*r);
    }
    return records;
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
    void canonicalDecoderAgreesWithGeneral_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<bool>("canonical"); // expected to take the fast path
        TranscriptRecord r = test::recordSavedAt(test::utc("2026-11-15T10:00:00.123Z"), QString::fromUtf8("café"));
        r.targetApplication = TargetApplication{QStringLiteral("Text Editor"), QStringLiteral("gedit"), 42};
        r.earsDurationMilliseconds = 640;
        const QByteArray good = r.toJsonLine();
        const auto with = [&](const char *from, const char *to) { return QByteArray(good).replace(from, to); };
        QTest::newRow("as written") << good << true;
        QTest::newRow("escapes") << with("caf\xc3\xa9", "a\\n\\\"b\\\\\\/\\t\\u00e9\\u2028") << true;
        QTest::newRow("surrogate pair escape") << with("caf\xc3\xa9", "\\ud83d\\ude00") << false;
        QTest::newRow("lone surrogate escape") << with("caf\xc3\xa9", "\\ud800") << false;
        QTest::newRow("noncharacter") << with("caf\xc3\xa9", "\xef\xbf\xbe") << true;
        QTest::newRow("largest code point") << with("caf\xc3\xa9", "\xf4\x8f\xbf\xbf") << true;
        QTest::newRow("overlong") << with("caf\xc3\xa9", "\xc0\xaf") << false;
        QTest::newRow("encoded surrogate") << with("caf\xc3\xa9", "\xed\xa0\x80") << false;
        QTest::newRow("beyond U+10FFFF") << with("caf\xc3\xa9", "\xf4\x90\x80\x80") << false;
        QTest::newRow("cut multibyte") << with("caf\xc3\xa9", "caf\xc3") << false;
        QTest::newRow("raw control") << with("caf\xc3\xa9", "a\x01" "b") << false;
        QTest::newRow("fraction") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":640.5") << false;
        QTest::newRow("exponent") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":6.4e2") << false;
        QTest::newRow("leading zero") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":0640") << false;
        QTest::newRow("16 digits") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":1234567890123456") << false;
        QTest::newRow("pid beyond int32") << with("\"processIdentifier\":42", "\"processIdentifier\":2147483648") << false;
        QTest::newRow("null optional") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":null") << false;
        QTest::newRow("unknown key") << with("{", "{\"aaa\":1,") << false;
        QTest::newRow("out of order") << with("{\"earsDurationMilliseconds\":640,", "{").chopped(1) + ",\"earsDurationMilliseconds\":640}" << false;
        QTest::newRow("spaces") << with(":", ": ") << false;
        QTest::newRow("trailing space") << good + ' ' << false;
        QTest::newRow("wrong outcome case") << with("\"pasted\"", "\"Pasted\"") << false;
        QTest::newRow("id lower case") << QByteArray(good).replace(uuidString(r.id).toLatin1(), uuidString(r.id).toLower().toLatin1()) << true;
        QTest::newRow("nil id") << QByteArray(good).replace(uuidString(r.id).toLatin1(), "00000000-0000-0000-0000-000000000000") << false;
        QTest::newRow("cut") << good.left(good.size() - 1) << false;
        QTest::newRow("CRLF") << good + '\r' << false;
        QTest::newRow("BOM") << "\xef\xbb\xbf" + good << false;
        QTest::newRow("two records fused") << good + good << false;
        QTest::newRow("upper-case hex escape") << with("caf\xc3\xa9", "caf\\u00E9") << true;
        QTest::newRow("control escapes") << with("caf\xc3\xa9", "\\b\\f\\r\\u001f") << true;
        QTest::newRow("raw four-byte UTF-8") << with("caf\xc3\xa9", "\xf0\x9f\x98\x80") << true;
        QTest::newRow("reversed surrogate pair") << with("caf\xc3\xa9", "\\ude00\\ud83d") << false;
        QTest::newRow("bad escape") << with("caf\xc3\xa9", "\\x41") << false;
        QTest::newRow("short unicode escape") << with("caf\xc3\xa9", "\\u00e") << false;
        QTest::newRow("escaped outcome") << with("\"pasted\"", "\"pa\\u0073ted\"") << true;
        QTest::newRow("escaped key") << with("\"outcome\"", "\"o\\u0075tcome\"") << false;
        QTest::newRow("empty transcript") << with("\"caf\xc3\xa9\"", "\"\"") << true;
        QTest::newRow("negative duration") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":-640") << true;
        QTest::newRow("15 digits") << with("\"earsDurationMilliseconds\":640", "\"earsDurationMilliseconds\":999999999999999") << true;
        QTest::newRow("pid lowest int32") << with("\"processIdentifier\":42", "\"processIdentifier\":-2147483648") << true;
        QTest::newRow("duplicate key, same value") << with("\"outcome\":\"pasted\"", "\"outcome\":\"pasted\",\"outcome\":\"pasted\"") << false;
        QTest::newRow("duplicate key in target") << with("\"name\":\"Text Editor\"", "\"name\":\"A\",\"name\":\"Text Editor\"") << false;
        QTest::newRow("unknown key in target") << with("\"processIdentifier\":42}", "\"processIdentifier\":42,\"zz\":{}}") << false;
        QTest::newRow("target without name") << with("\"name\":\"Text Editor\",", "") << false;
        QTest::newRow("target without bundle") << with("\"bundleIdentifier\":\"gedit\",", "") << true;
        const qsizetype target = good.indexOf("{\"bundleIdentifier\"");
        QTest::newRow("target null") << QByteArray(good).replace(target, good.indexOf('}', target) + 1 - target, "null") << false;
        QTest::newRow("missing required key") << with("\"outcome\":\"pasted\",", "") << false;
        QTest::newRow("empty object") << QByteArray("{}") << false;
        QTest::newRow("empty line") << QByteArray() << false;
    }
    void canonicalDecoderAgreesWithGeneral()
    {
        QFETCH(QByteArray, line);
        QFETCH(bool, canonical);
        const auto general = TranscriptRecord::fromJson(line);
        const auto fast = JournalLineDecoder::decodeCanonical(line);
        QCOMPARE(fast.has_value(), canonical);
        if (fast) {
            QVERIFY(general);
            QCOMPARE(*fast, *general);
        }
        QCOMPARE(JournalLineDecoder::decode(line), general);
    }

    // Every seed the fuzzers start from, each line of it whole and cut at
    // every byte as a crash in the middle of an append leaves it.
    void seedLinesDecodeAlike_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QString root = QFINDTESTDATA("../fuzz/corpus");
        QVERIFY2(!root.isEmpty(), "the fuzz seed corpora are missing");
        int seeds = 0;
        for (const QString &corpus : {QStringLiteral("record"), QStringLiteral("journal"), QStringLiteral("archive")}) {
            const QDir dir(root + QLatin1Char('/') + corpus);
            for (const QFileInfo &file : dir.entryInfoList(QDir::Files, QDir::Name)) {
                QByteArray bytes = readFile(file.filePath());
                if (corpus == QLatin1String("journal"))
                    bytes.remove(0, 2); // two bytes choose the fuzzer's chunk sizes
                QTest::addRow("%s/%s", qPrintable(corpus), qPrintable(file.fileName())) << bytes;
                ++seeds;
            }
        }
        QVERIFY2(seeds > 100, "too few fuzz seeds found");
    }
    void seedLinesDecodeAlike()
    {
        QFETCH(QByteArray, bytes);
        // Lines longer than a record (deep nesting) are cut at a few hundred places.
        const auto step = [](qsizetype size) { return size <= 1024 ? 1 : size / 256; };
        for (const QByteArray &line : bytes.split('\n')) {
            for (qsizetype n = line.size(); n >= 0; n -= step(line.size())) {
                const QString mismatch = decoderMismatch(line.left(n));
                QVERIFY2(mismatch.isEmpty(), qPrintable(mismatch));
            }
        }
        // As a file, torn anywhere.
        for (qsizetype n = bytes.size(); n >= 0; n -= step(bytes.size()))
            QCOMPARE(TranscriptJournal::decodeLines(bytes.left(n)), referenceRead(bytes.left(n)));
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

    void readerEqualsLineByLineDecode_data()
    {
        QTest::addColumn<quint32>("seed");
        for (quint32 seed : {1u, 2u, 3u, 4u, 5u})
            QTest::addRow("seed %u", seed) << seed;
    }
    void readerEqualsLineByLineDecode()
    {
        QFETCH(quint32, seed);
        const QByteArray bytes = generatedJournal(seed, 3000); // over 1 MiB: decoded on every core
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
    }

    void storeEqualsJournal_data() { readerEqualsLineByLineDecode_data(); }
    void storeEqualsJournal()
    {
        QFETCH(quint32, seed);
        // Large enough that the newest page is shown before the rest.
        const QByteArray bytes = generatedJournal(seed + 100, 4000);
        QVERIFY(writeFile(journalPath(), bytes));
        const QList<TranscriptRecord> expected = referenceRead(bytes);

        HistoryStore store{TranscriptJournal(journalPath())};
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

    void escapedHalfSurrogateStillArchives()
    {
        // "\ud800" cannot be written back as UTF-8: read as U+FFFD, it verifies.
        const TranscriptRecord r = test::recordSavedAt(test::utc("2026-01-01T00:00:00Z"), QStringLiteral("x"));
        const QByteArray line = r.toJsonLine().replace("\"transcript\":\"x\"", "\"transcript\":\"a\\ud800b\\udc00\"");
        QVERIFY(writeFile(journalPath(), line + '\n'));
        const QList<TranscriptRecord> read = TranscriptJournal(journalPath()).readAll();
        QCOMPARE(read.size(), 1);
        QCOMPARE(read.first().transcript, QString::fromUtf8("a\uFFFDb\uFFFD"));
        const auto archive = archiveAndClear(TranscriptJournal(journalPath()),
            m_dir.filePath(QStringLiteral("archive.json")), QDateTime::currentDateTimeUtc());
        QCOMPARE(archive.recordCount, 1);
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
