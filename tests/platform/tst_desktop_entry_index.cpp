#include "platform/DesktopEntryIndex.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

using dictora::test::writeFile;

class TestDesktopEntryIndex : public QObject {
    Q_OBJECT

private:
    QTemporaryDir root;
    QString home() const { return root.path() + QStringLiteral("/home/applications"); }
    QString system() const { return root.path() + QStringLiteral("/system/applications"); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(root.isValid());
        writeFile(system() + "/org.example.Editor.desktop",
                  "[Desktop Entry]\nType=Application\nName=Example Editor\nName[de]=Beispiel-Editor\n"
                  "StartupWMClass=Example-editor\nExec=example\n"
                  "[Desktop Action new]\nName=New Window\n");
        writeFile(system() + "/termite.desktop", "[Desktop Entry]\nName=Termite Terminal\nType=Application\n");
        // An action group before the main group must not lend its name.
        writeFile(system() + "/actions-first.desktop",
                  "[Desktop Action x]\nName=Wrong\n[Desktop Entry]\nName=Right Name\nStartupWMClass=ActionsFirst\n");
        writeFile(system() + "/hidden.desktop",
                  "[Desktop Entry]\nName=Hidden App\nHidden=true\nStartupWMClass=HiddenApp\n");
        writeFile(system() + "/link.desktop",
                  "[Desktop Entry]\nType=Link\nName=A Link\nStartupWMClass=LinkClass\n");
        writeFile(system() + "/garbage.desktop", QByteArray("\x00\xff\xfe not a desktop file \n=\n[", 32));
        writeFile(system() + "/nameless.desktop", "[Desktop Entry]\nStartupWMClass=Nameless\n");
        writeFile(system() + "/kde4/dolphin.desktop", "[Desktop Entry]\nName=Dolphin Files\n");
        // The user's own copy of an entry shadows the system one.
        writeFile(system() + "/shadowed.desktop", "[Desktop Entry]\nName=System Copy\nStartupWMClass=Shadowed\n");
        writeFile(home() + "/shadowed.desktop", "[Desktop Entry]\nName=User Copy\nStartupWMClass=Shadowed\n");
        writeFile(home() + "/userhidden.desktop", "[Desktop Entry]\nName=Gone\nHidden=true\n");
        writeFile(system() + "/userhidden.desktop", "[Desktop Entry]\nName=Still System\n");
    }

    void namesWindows_data()
    {
        QTest::addColumn<QString>("windowClass");
        QTest::addColumn<QString>("instanceName");
        QTest::addColumn<QString>("expected"); // empty: no entry
        QTest::addColumn<QString>("locale");

        QTest::newRow("StartupWMClass, exact") << "Example-editor" << "" << "Example Editor" << "";
        QTest::newRow("StartupWMClass, other case") << "EXAMPLE-EDITOR" << "" << "Example Editor" << "";
        QTest::newRow("localised name wins") << "Example-editor" << "" << "Beispiel-Editor" << "de_DE";
        QTest::newRow("file name equals class") << "Termite" << "" << "Termite Terminal" << "";
        QTest::newRow("file name equals instance") << "Unrelated" << "termite" << "Termite Terminal" << "";
        QTest::newRow("class beats instance") << "Termite" << "Example-editor" << "Termite Terminal" << "";
        QTest::newRow("main group only") << "ActionsFirst" << "" << "Right Name" << "";
        QTest::newRow("hidden entry ignored") << "HiddenApp" << "" << "" << "";
        QTest::newRow("links are not applications") << "LinkClass" << "" << "" << "";
        QTest::newRow("entry without a name ignored") << "Nameless" << "" << "" << "";
        QTest::newRow("subfolder id joins with dash") << "kde4-dolphin" << "" << "Dolphin Files" << "";
        QTest::newRow("user copy wins") << "Shadowed" << "" << "User Copy" << "";
        QTest::newRow("hidden user copy hides the system one") << "userhidden" << "" << "" << "";
        QTest::newRow("unknown class") << "NoSuchApp" << "nosuchapp" << "" << "";
        QTest::newRow("empty class") << "" << "" << "" << "";
    }

    void namesWindows()
    {
        QFETCH(QString, windowClass);
        QFETCH(QString, instanceName);
        QFETCH(QString, expected);
        QFETCH(QString, locale);
        const QLocale previous;
        QLocale::setDefault(locale.isEmpty() ? QLocale::c() : QLocale(locale));
        const DesktopEntryIndex index({home(), system(), root.path() + "/missing/applications"});
        index.waitUntilRead();
        const std::optional<QString> name = index.nameForWindow(windowClass, instanceName);
        QLocale::setDefault(previous);
        QCOMPARE(name.value_or(QString()), expected);
    }
};

QTEST_GUILESS_MAIN(TestDesktopEntryIndex)
#include "tst_desktop_entry_index.moc"
