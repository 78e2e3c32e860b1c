// Start at login against real files in a scratch XDG_CONFIG_HOME.
#include "core/ProductPreferences.h"
#include "core/StartAtLogin.h"
#include "support/TestSupport.h"

#include <QtTest>

#include <unistd.h>

using namespace dictora;

namespace {

const QString kProgram = QStringLiteral("/usr/bin/dictora");
const QByteArray kHandWritten = "[Desktop Entry]\nType=Application\nName=Dictora\nExec=dictora\n";

// What is at the entry's place before the user flips the switch.
enum class Before { nothing, ours, handWritten, hidden, gnomeDisabled, actionHidden, symlink, folderBlocked, entryIsFolder, readOnlyFolder };

} // namespace

Q_DECLARE_METATYPE(Before)

class StartAtLoginTest : public QObject {
    Q_OBJECT

    std::unique_ptr<test::IsolatedHome> m_home;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<ProductPreferences> m_preferences;

    QString autostart() const { return m_home->path() + QStringLiteral("/config/autostart"); }
    QString entry() const { return autostart() + QStringLiteral("/dictora.desktop"); }

    // Leaves `before` in place; false when this machine cannot stage it.
    bool stage(Before before)
    {
        switch (before) {
        case Before::nothing:
            return true;
        case Before::ours:
            return test::writeFile(entry(), StartAtLogin::entryText(kProgram));
        case Before::handWritten:
            return test::writeFile(entry(), kHandWritten);
        case Before::hidden:
            return test::writeFile(entry(), kHandWritten + "Hidden=true\n");
        case Before::gnomeDisabled:
            return test::writeFile(entry(), kHandWritten + "X-GNOME-Autostart-enabled = false\n");
        case Before::actionHidden:
            return test::writeFile(entry(), kHandWritten + "\n[Desktop Action quiet]\nHidden=true\n");
        case Before::symlink: {
            const QString target = m_home->path() + QStringLiteral("/launcher.desktop");
            return test::writeFile(target, kHandWritten) && QDir().mkpath(autostart()) && QFile::link(target, entry());
        }
        case Before::folderBlocked:
            return test::writeFile(autostart(), "a file where the folder belongs\n");
        case Before::entryIsFolder:
            return QDir().mkpath(entry() + QStringLiteral("/inside"));
        case Before::readOnlyFolder:
            return QDir().mkpath(autostart())
                && QFile::setPermissions(autostart(), QFile::ReadOwner | QFile::ExeOwner) && ::geteuid() != 0;
        }
        return false;
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<test::IsolatedHome>();
        m_settings = std::make_unique<QSettings>(m_home->path() + QStringLiteral("/Dictora.conf"), QSettings::IniFormat);
        m_preferences = std::make_unique<ProductPreferences>(*m_settings);
    }

    void cleanup()
    {
        QFile::setPermissions(autostart(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_preferences.reset();
        m_settings.reset();
        m_home.reset();
    }

    void entryOnDiskDecides_data()
    {
        QTest::addColumn<Before>("before");
        QTest::addColumn<bool>("on");
        QTest::newRow("no entry") << Before::nothing << false;
        QTest::newRow("ours") << Before::ours << true;
        QTest::newRow("written by hand") << Before::handWritten << true;
        QTest::newRow("a link to the launcher") << Before::symlink << true;
        QTest::newRow("Hidden=true") << Before::hidden << false;
        QTest::newRow("switched off in GNOME") << Before::gnomeDisabled << false;
        QTest::newRow("Hidden in an action group only") << Before::actionHidden << true;
        QTest::newRow("a folder in the entry's place") << Before::entryIsFolder << false;
    }

    // Also an entry deleted behind our back turns a stored "on" off.
    void entryOnDiskDecides()
    {
        QFETCH(Before, before);
        QFETCH(bool, on);
        m_preferences->setStartsAtLogin(!on);
        QVERIFY(stage(before));
        StartAtLogin login(*m_preferences, QStringLiteral("dictora"), kProgram);
        QCOMPARE(login.entryPath(), entry());
        login.refresh();
        QCOMPARE(m_preferences->startsAtLogin(), on);
        m_settings->sync();
        QTRY_COMPARE(ProductPreferences(*m_settings).startsAtLogin(), on); // written on the preferences' own thread
    }

    void switching_data()
    {
        QTest::addColumn<Before>("before");
        QTest::addColumn<bool>("turnOn");
        QTest::addColumn<bool>("fails");
        QTest::addColumn<bool>("on");
        QTest::newRow("on writes the entry") << Before::nothing << true << false << true;
        QTest::newRow("on over a switched-off entry") << Before::hidden << true << false << true;
        QTest::newRow("on replaces a link, not its target") << Before::symlink << true << false << true;
        QTest::newRow("off removes ours") << Before::ours << false << false << false;
        QTest::newRow("off removes one written by hand") << Before::handWritten << false << false << false;
        QTest::newRow("off with nothing there") << Before::nothing << false << false << false;
        QTest::newRow("folder cannot be created") << Before::folderBlocked << true << true << false;
        QTest::newRow("read-only folder") << Before::readOnlyFolder << true << true << false;
        QTest::newRow("a folder in the entry's place, on") << Before::entryIsFolder << true << true << false;
        QTest::newRow("a folder in the entry's place, off") << Before::entryIsFolder << false << true << false;
    }

    void switching()
    {
        QFETCH(Before, before);
        QFETCH(bool, turnOn);
        QFETCH(bool, fails);
        QFETCH(bool, on);
        if (!stage(before))
            QSKIP("a read-only folder cannot be staged as root");
        const QByteArray blocker = test::readFile(autostart());
        const QByteArray linkTarget = test::readFile(m_home->path() + QStringLiteral("/launcher.desktop"));

        StartAtLogin login(*m_preferences, QStringLiteral("dictora"), kProgram);
        const QString failure = login.setEnabled(turnOn);
        QVERIFY2(failure.isEmpty() != fails, qPrintable(failure));
        if (fails)
            QVERIFY2(failure.contains(autostart()), qPrintable(failure)); // names the place to fix
        QCOMPARE(m_preferences->startsAtLogin(), on);
        QCOMPARE(login.entryEnabled(), on);
        m_settings->sync();
        QTRY_COMPARE(ProductPreferences(*m_settings).startsAtLogin(), on); // written on the preferences' own thread

        const QFileInfo written(entry());
        if (on) {
            QVERIFY(!written.isSymLink());
            QCOMPARE(test::readFile(entry()), StartAtLogin::entryText(kProgram));
        } else if (!fails) {
            QVERIFY(!written.exists() && !written.isSymLink());
        }
        // Nothing of the user's is lost on the way.
        QCOMPARE(test::readFile(autostart()), blocker);
        QCOMPARE(test::readFile(m_home->path() + QStringLiteral("/launcher.desktop")), linkTarget);
        if (before == Before::entryIsFolder)
            QVERIFY(QFileInfo(entry() + QStringLiteral("/inside")).isDir());
        QVERIFY(QDir(autostart()).entryList({QStringLiteral("*.tmp"), QStringLiteral("*~")}, QDir::Files).isEmpty());
    }

    void execNamesTheProgram_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("exec");
        QTest::newRow("plain") << "/usr/bin/dictora" << "Exec=/usr/bin/dictora\n";
        QTest::newRow("space") << "/opt/My Apps/dictora" << "Exec=\"/opt/My Apps/dictora\"\n";
        QTest::newRow("dollar") << "/home/a$b/dictora" << "Exec=\"/home/a\\\\$b/dictora\"\n";
        QTest::newRow("quote") << "/home/\"x\"/dictora" << "Exec=\"/home/\\\\\"x\\\\\"/dictora\"\n";
        QTest::newRow("percent") << "/tmp/100%/dictora" << "Exec=/tmp/100%%/dictora\n";
        QTest::newRow("non-ASCII") << "/home/zoë/bin/dictora" << "Exec=/home/zoë/bin/dictora\n";
    }

    void execNamesTheProgram()
    {
        QFETCH(QString, program);
        QFETCH(QString, exec);
        const QString text = QString::fromUtf8(StartAtLogin::entryText(program));
        QVERIFY2(text.startsWith(QStringLiteral("[Desktop Entry]\n")), qPrintable(text));
        QVERIFY2(text.contains(QLatin1Char('\n') + exec), qPrintable(text));
    }

    void unknownProgramIsRefused_data()
    {
        QTest::addColumn<QString>("program");
        QTest::newRow("empty") << QString();
        QTest::newRow("relative") << "dictora";
        QTest::newRow("newline") << "/tmp/a\nb/dictora";
    }

    void unknownProgramIsRefused()
    {
        QFETCH(QString, program);
        StartAtLogin login(*m_preferences, QStringLiteral("dictora"), program);
        QVERIFY(!login.setEnabled(true).isEmpty());
        QVERIFY(!m_preferences->startsAtLogin());
        QVERIFY(!QFileInfo::exists(entry()));
    }
};

QTEST_GUILESS_MAIN(StartAtLoginTest)
#include "tst_start_at_login.moc"
