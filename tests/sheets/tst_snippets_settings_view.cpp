#include "home/sheets/SettingsToggleCard.h"
#include "home/sheets/SnippetsSettingsView.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

using namespace dictora;

class SnippetsSettingsViewTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;

    QString snippetsFile() const { return m_dir->filePath(QStringLiteral("Dictora/snippets.json")); }

    // What is on disk, as (trigger, expansion) pairs in file order.
    QList<QPair<QString, QString>> onDisk() const
    {
        QFile file(snippetsFile());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        QList<QPair<QString, QString>> pairs;
        const QJsonArray array = QJsonDocument::fromJson(file.readAll()).array();
        for (const QJsonValue &v : array)
            pairs.append({v.toObject().value(QStringLiteral("trigger")).toString(),
                          v.toObject().value(QStringLiteral("expansion")).toString()});
        return pairs;
    }

    static void saveShot(QWidget &w, const QString &name)
    {
        QDir().mkpath(QStringLiteral(DICTORA_SCREENSHOT_DIR));
        QCoreApplication::processEvents();
        w.grab().save(QStringLiteral(DICTORA_SCREENSHOT_DIR "/") + name + QStringLiteral(".png"));
    }

    void writeFile(const QByteArray &bytes) { QVERIFY(test::writeFile(snippetsFile(), bytes)); }

    // The sheet over real preferences and a real snippets file.
    struct Sheet {
        QSettings settings;
        ProductPreferences preferences{settings};
        SnippetStore store;
        SnippetsSettingsView view{store, preferences};
        Sheet(const QTemporaryDir &dir, const QString &file)
            : settings(dir.filePath(QStringLiteral("prefs.ini")), QSettings::IniFormat), store(file) {}
    };

private Q_SLOTS:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void addEditRemoveWriteTheFile()
    {
        Sheet sheet(*m_dir, snippetsFile());
        SnippetsSettingsView &view = sheet.view;
        view.show();
        QVERIFY(view.showsEmptyState());
        saveShot(view, QStringLiteral("snippets-empty"));

        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QCOMPARE(view.rows().size(), 1);
        QVERIFY(!view.showsEmptyState());
        QCOMPARE(onDisk(), (QList<QPair<QString, QString>>{{QString(), QString()}}));
        const auto row = view.rows().first();

        QTest::keyClicks(row.trigger, QStringLiteral("my email"));
        QTest::keyClicks(row.expansion, QStringLiteral("jordan@example.com"));
        QCOMPARE(onDisk(), (QList<QPair<QString, QString>>{{QStringLiteral("my email"), QStringLiteral("jordan@example.com")}}));
        // Typing saves per keystroke without rebuilding the row under the cursor.
        QCOMPARE(view.rows().first().trigger, row.trigger);
        QCOMPARE(row.expansion->text(), QStringLiteral("jordan@example.com"));

        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QTest::keyClicks(view.rows().at(1).trigger, QStringLiteral("sig"));
        QTest::keyClicks(view.rows().at(1).expansion, QStringLiteral("Best regards."));
        saveShot(view, QStringLiteral("snippets-two-rows"));

        QTest::mouseClick(view.rows().first().remove, Qt::LeftButton);
        QTRY_COMPARE(view.rows().size(), 1);
        QCOMPARE(onDisk(), (QList<QPair<QString, QString>>{{QStringLiteral("sig"), QStringLiteral("Best regards.")}}));
        QCOMPARE(view.rows().first().trigger->text(), QStringLiteral("sig"));

        QTest::mouseClick(view.rows().first().remove, Qt::LeftButton);
        QTRY_VERIFY(view.rows().isEmpty());
        QVERIFY(view.showsEmptyState());
        QCOMPARE(onDisk(), (QList<QPair<QString, QString>>{}));
        QVERIFY(QFile::exists(snippetsFile()));
    }

    void existingFileShowsRowsInOrderAndEditsOnlyOne()
    {
        writeFile(R"([
 {"expansion":"by the way","id":"6F1C3D32-6C0A-4B9B-9E55-1A1B2C3D4E5F","trigger":"btw"},
 {"expansion":"Best regards.","id":"0E7D0A49-2B77-4C3C-8E0F-2F4A5B6C7D8E","trigger":"sig"}
])");
        Sheet sheet(*m_dir, snippetsFile());
        SnippetsSettingsView &view = sheet.view;
        view.show();
        QCOMPARE(view.rows().size(), 2);
        QCOMPARE(view.rows().at(0).trigger->text(), QStringLiteral("btw"));
        QCOMPARE(view.rows().at(1).expansion->text(), QStringLiteral("Best regards."));

        QLineEdit *expansion = view.rows().at(1).expansion;
        expansion->setFocus();
        expansion->end(false);
        QTest::keyClick(expansion, Qt::Key_Backspace);
        QTest::keyClicks(expansion, QStringLiteral(", Jordan"));
        QCOMPARE(onDisk(), (QList<QPair<QString, QString>>{{QStringLiteral("btw"), QStringLiteral("by the way")},
                                                           {QStringLiteral("sig"), QStringLiteral("Best regards, Jordan")}}));
    }

    void unreadableFileStartsEmptyAndKeepsIt()
    {
        writeFile("[{\"id\":\"6F1C3D32-6C0A-4B9B-9E55-1A1B2C3D4E5F\",\"trigger\":\"btw\"}]");
        Sheet sheet(*m_dir, snippetsFile());
        SnippetsSettingsView &view = sheet.view;
        QVERIFY(view.showsEmptyState());
        QCOMPARE(view.rows().size(), 0);
        QTest::mouseClick(view.addButton(), Qt::LeftButton);
        QCOMPARE(view.rows().size(), 1);
    }

    void togglesWriteThePreferences_data()
    {
        QTest::addColumn<QString>("card");
        QTest::addColumn<QString>("key");
        QTest::newRow("format words") << "formatWords" << QString::fromLatin1(ProductPreferences::kFormattingKey);
        QTest::newRow("use snippets") << "useSnippets" << QString::fromLatin1(ProductPreferences::kSnippetsKey);
    }
    void togglesWriteThePreferences()
    {
        QFETCH(QString, card);
        QFETCH(QString, key);
        Sheet sheet(*m_dir, snippetsFile());
        QSettings &settings = sheet.settings;
        ProductPreferences &preferences = sheet.preferences;
        sheet.view.show();
        auto *toggle = sheet.view.findChild<SettingsToggleCard *>(card);
        QVERIFY(toggle);
        QVERIFY(toggle->isOn()); // both default to on

        QTest::mouseClick(toggle->toggle(), Qt::LeftButton);
        QVERIFY(!toggle->isOn());
        settings.sync();
        QTRY_COMPARE(settings.value(key).toBool(), false); // written on the preferences' own thread
        const bool formatting = card == QLatin1String("formatWords");
        QCOMPARE(formatting ? preferences.formattingEnabled() : preferences.snippetsEnabled(), false);
        QCOMPARE(formatting ? preferences.snippetsEnabled() : preferences.formattingEnabled(), true);

        // A change made elsewhere (the onboarding's "USE SNIPPETS") shows here.
        if (formatting)
            preferences.setFormattingEnabled(true);
        else
            preferences.setSnippetsEnabled(true);
        QVERIFY(toggle->isOn());
    }
};

QTEST_MAIN(SnippetsSettingsViewTest)
#include "tst_snippets_settings_view.moc"
