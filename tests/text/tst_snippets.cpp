#include "text/SnippetExpander.h"
#include "text/SnippetStore.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include "support/TestSupport.h"

#include <QtTest>

using namespace dictora;

using TriggerList = QList<QPair<QString, QString>>;
Q_DECLARE_METATYPE(TriggerList)

using dictora::test::readFile;
using dictora::test::writeFile;

namespace {

SnippetEntries entriesOf(const TriggerList &pairs)
{
    SnippetEntries entries;
    for (const auto &pair : pairs)
        entries.append(SnippetEntry::create(pair.first, pair.second));
    return entries;
}

const QByteArray kValidId = "3F2504E0-4F89-11D3-9A0C-0305E82C3301";

} // namespace

class SnippetsTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_path; // snippets.json in a fresh folder per test

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_path = m_dir->filePath(QStringLiteral("snippets.json"));
    }

    void apply_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<TriggerList>("snippets");
        QTest::addColumn<QString>("expected");

        const auto one = [](const char *trigger, const char *expansion) {
            return TriggerList{{QString::fromUtf8(trigger), QString::fromUtf8(expansion)}};
        };
        QTest::newRow("case-insensitive") << "BTW, it works" << one("btw", "by the way") << "by the way, it works";
        QTest::newRow("trigger is trimmed") << "Thanks sig" << one("  sig \n", "Best regards.") << "Thanks Best regards.";
        QTest::newRow("punctuation merge") << "Thanks. Sig." << one("sig", "Best regards.") << "Thanks. Best regards.";
        QTest::newRow("merge with other marks") << "ok sig?" << one("sig", "Cheers!") << "ok Cheers?";
        QTest::newRow("no merge without final mark") << "sig." << one("sig", "Cheers") << "Cheers.";
        QTest::newRow("no merge before a letter") << "sigx" << one("sig", "Hi.") << "Hi.x";
        QTest::newRow("expansion of one mark before a mark") << "a sig, b" << one("sig", ";") << "a , b";
        QTest::newRow("inside words") << "signal" << one("sig", "X") << "Xnal";
        QTest::newRow("every occurrence once") << "banana" << one("a", "aa") << "baanaanaa";
        QTest::newRow("expansion contains trigger") << "lol ok lol" << one("lol", "lol lol") << "lol lol ok lol lol";
        QTest::newRow("empty expansion is skipped") << "sig here" << one("sig", "") << "sig here";
        QTest::newRow("blank trigger is skipped") << "a b" << one(" \t ", "x") << "a b";
        QTest::newRow("no entries, spaces kept") << "  as is  " << TriggerList{} << "  as is  ";
        QTest::newRow("expansion kept as stored") << "x sig y" << one("sig", "  two  spaces ") << "x   two  spaces  y";
        QTest::newRow("accented upper case") << QString::fromUtf8("mon ÉCOLE") << one("école", "school") << "mon school";
        QTest::newRow("Greek sigma") << QString::fromUtf8("ΣΟΦΙΑ") << one("σοφια", "wisdom") << "wisdom";
        QTest::newRow("diacritics must match") << QString::fromUtf8("école") << one("ecole", "school") << QString::fromUtf8("école");
        QTest::newRow("half a decomposed letter") << QStringLiteral("cafe\u0301 cafe") << one("cafe", "bar")
                                                  << QStringLiteral("cafe\u0301 bar");
        QTest::newRow("emoji trigger") << QString::fromUtf8("ship it 🚀!") << one("🚀", "(launch).") << "ship it (launch)!";

        QTest::newRow("overlap, longer first")
            << "New York and york" << TriggerList{{"new york", "NYC"}, {"york", "Yorkshire"}} << "NYC and Yorkshire";
        QTest::newRow("overlap, shorter first")
            << "New York and york" << TriggerList{{"york", "Yorkshire"}, {"new york", "NYC"}}
            << "NYCshire and Yorkshire"; // the later trigger matches inside the earlier expansion
        QTest::newRow("empty entry ignored among others")
            << "btw" << TriggerList{{"", ""}, {"btw", "by the way"}} << "by the way";
    }

    void apply()
    {
        QFETCH(QString, text);
        QFETCH(TriggerList, snippets);
        QFETCH(QString, expected);
        QCOMPARE(SnippetExpander::apply(text, entriesOf(snippets)), expected);
    }

    void storeFileFormat()
    {
        SnippetStore store(m_path);
        QVERIFY(store.entries().isEmpty() && store.loadProblem().isEmpty());
        QVERIFY(!QFile::exists(m_path)); // reading never creates the file
        const SnippetEntry entry{QUuid::fromString(QString::fromLatin1(kValidId).toLower()), QStringLiteral("sig"),
                                 QStringLiteral("Best \"regards\"\nJo")};
        store.setEntries({entry});

        const QByteArray bytes = readFile(m_path);
        const QJsonDocument doc = QJsonDocument::fromJson(bytes);
        QVERIFY(doc.isArray());
        const QJsonObject object = doc.array().first().toObject();
        QCOMPARE(object.keys(), (QStringList{"expansion", "id", "trigger"}));
        QCOMPARE(object.value("id").toString(), QString::fromLatin1(kValidId)); // upper case
        QCOMPARE(object.value("expansion").toString(), entry.expansion);
        QVERIFY(bytes.contains('\n')); // pretty-printed
        QCOMPARE(QFile::permissions(m_path) & (QFile::ReadOther | QFile::ReadGroup), QFile::Permissions());
        QCOMPARE(SnippetStore(m_path).entries(), SnippetEntries{entry}); // and reads back what it wrote

        // A hand-written file: a lower-case id and keys of its own are fine.
        QVERIFY(writeFile(m_path, "[{\"id\":\"" + kValidId.toLower() + "\",\"trigger\":\"a\",\"expansion\":\"b\",\"color\":\"red\"}]"));
        const SnippetEntry handWritten{QUuid::fromString(QLatin1String(kValidId)), QStringLiteral("a"), QStringLiteral("b")};
        QCOMPARE(SnippetStore(m_path).entries(), SnippetEntries{handWritten});
    }

    void unreadableFile_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("not JSON") << QByteArray("this is not json");
        QTest::newRow("truncated") << QByteArray("[{\"id\":\"" + kValidId + "\",\"trigger\":\"a\"");
        QTest::newRow("object instead of array") << QByteArray("{\"snippets\":[]}");
        QTest::newRow("missing expansion") << QByteArray("[{\"id\":\"" + kValidId + "\",\"trigger\":\"a\"}]");
        QTest::newRow("number trigger") << QByteArray("[{\"id\":\"" + kValidId + "\",\"trigger\":1,\"expansion\":\"b\"}]");
        QTest::newRow("id not a UUID") << QByteArray("[{\"id\":\"abc\",\"trigger\":\"a\",\"expansion\":\"b\"}]");
        QTest::newRow("braced id") << QByteArray("[{\"id\":\"{" + kValidId + "}\",\"trigger\":\"a\",\"expansion\":\"b\"}]");
        QTest::newRow("array of numbers") << QByteArray("[1,2]");
        QTest::newRow("one bad entry spoils all")
            << QByteArray("[{\"id\":\"" + kValidId + "\",\"trigger\":\"a\",\"expansion\":\"b\"},{}]");
        QTest::newRow("binary") << QByteArray("\x00\xff\xfe\x01", 4);
    }

    void unreadableFile()
    {
        QFETCH(QByteArray, content);
        QVERIFY(writeFile(m_path, content));

        SnippetStore store(m_path);
        QVERIFY(store.entries().isEmpty());
        QVERIFY(!store.loadProblem().isEmpty());
        QVERIFY(store.loadProblem().contains(m_path));
        QCOMPARE(readFile(m_path), content); // untouched by reading

        // The first change writes the new list but keeps the old bytes beside it.
        store.add();
        QCOMPARE(SnippetStore::load(m_path).entries, store.entries());
        const QStringList kept = QDir(m_dir->path()).entryList({QStringLiteral("snippets.json.unreadable-*")}, QDir::Files);
        QCOMPARE(kept.size(), 1);
        QCOMPARE(readFile(m_dir->filePath(kept.first())), content);

        // Only once: later changes do not pile up copies.
        store.add();
        QCOMPARE(QDir(m_dir->path()).entryList({QStringLiteral("snippets.json.unreadable-*")}, QDir::Files).size(), 1);
    }

    void removeMatchesById()
    {
        SnippetStore store(m_path);
        SnippetEntries entries = entriesOf({{"a", "1"}, {"b", "2"}, {"c", "3"}});
        const SnippetEntry twin{entries.at(0).id, QStringLiteral("other"), QStringLiteral("fields")};
        entries.append(twin);
        store.setEntries(entries);

        store.remove(SnippetEntry{entries.at(0).id, {}, {}}); // fields other than id do not matter
        QCOMPARE(store.entries(), (SnippetEntries{entries.at(1), entries.at(2)}));
        QCOMPARE(SnippetStore::load(m_path).entries, store.entries());

        QVERIFY(QFile::remove(m_path));
        store.remove(SnippetEntry::create()); // not in the list: still saves
        QCOMPARE(SnippetStore::load(m_path).entries, store.entries());
    }

    void saveFailureKeepsEntries()
    {
        QVERIFY(writeFile(m_dir->filePath(QStringLiteral("blocker")), "a file where a folder should be"));
        SnippetStore store(m_dir->filePath(QStringLiteral("blocker/snippets.json")));
        const SnippetEntry added = store.add();
        QCOMPARE(store.entries(), SnippetEntries{added});
        QVERIFY(!store.lastSaveError().isEmpty());
    }
};

QTEST_GUILESS_MAIN(SnippetsTest)
#include "tst_snippets.moc"
