// Start at login against real files in a scratch XDG_CONFIG_HOME.
#include "core/ProductPreferences.h"
#include "core/StartAtLogin.h"
#include "support/TestSupport.h"

#include <QtTest>

#include <unistd.h>

using namespace dictora;

namespace {

const QByteArray kHandWritten = "[Desktop Entry]\nType=Application\nName=Dictora\nExec=dictora\n";

// What is at the entry's place before the switch is read or flipped.
enum class Before { nothing, handWritten, hidden, gnomeDisabled, actionHidden, symlink, folderBlocked, entryIsFolder, readOnlyFolder };
// What the user does: nothing (the entry is read at start), switch on, switch off.
enum class Switch { read, on, off };

} // namespace

Q_DECLARE_METATYPE(Before)
Q_DECLARE_METATYPE(Switch)

class StartAtLoginTest : public QObject {
    Q_OBJECT

    std::unique_ptr<test::IsolatedHome> m_home;
    QString autostart() const { return m_home->path() + QStringLiteral("/config/autostart"); }
    QString entry() const { return autostart() + QStringLiteral("/dictora.desktop"); }
    QString launcher() const { return m_home->path() + QStringLiteral("/launcher.desktop"); }

    // Leaves `before` in place; false when this machine cannot stage it.
    bool stage(Before before)
    {
        switch (before) {
        case Before::nothing:
            return true;
        case Before::handWritten:
            return test::writeFile(entry(), kHandWritten);
        case Before::hidden:
            return test::writeFile(entry(), kHandWritten + "Hidden=true\n");
        case Before::gnomeDisabled:
            return test::writeFile(entry(), kHandWritten + "X-GNOME-Autostart-enabled = false\n");
        case Before::actionHidden:
            return test::writeFile(entry(), kHandWritten + "\n[Desktop Action quiet]\nHidden=true\n");
        case Before::symlink:
            return test::writeFile(launcher(), kHandWritten) && QDir().mkpath(autostart()) && QFile::link(launcher(), entry());
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
    void init() { m_home = std::make_unique<test::IsolatedHome>(); }

    void cleanup()
    {
        QFile::setPermissions(autostart(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_home.reset();
    }

    // The stored switch always ends as the entry on disk says; a failure names
    // the place to fix, and nothing of the user's is lost on the way.
    void entryOnDiskDecides_data()
    {
        QTest::addColumn<Before>("before");
        QTest::addColumn<Switch>("action");
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("exec"); // the written Exec line; empty: nothing written
        QTest::addColumn<bool>("fails");
        QTest::addColumn<bool>("on");
        const QString bin = QStringLiteral("/usr/bin/dictora");
        QTest::newRow("deleted behind our back") << Before::nothing << Switch::read << bin << "" << false << false;
        QTest::newRow("written by hand") << Before::handWritten << Switch::read << bin << "" << false << true;
        QTest::newRow("Hidden=true") << Before::hidden << Switch::read << bin << "" << false << false;
        QTest::newRow("switched off in GNOME") << Before::gnomeDisabled << Switch::read << bin << "" << false << false;
        QTest::newRow("Hidden in an action group only") << Before::actionHidden << Switch::read << bin << "" << false << true;
        QTest::newRow("a folder in the entry's place, read") << Before::entryIsFolder << Switch::read << bin << "" << false << false;
        QTest::newRow("on") << Before::nothing << Switch::on << bin << "Exec=/usr/bin/dictora" << false << true;
        QTest::newRow("on, space quoted") << Before::hidden << Switch::on << "/opt/My Apps/dictora"
                                          << "Exec=\"/opt/My Apps/dictora\"" << false << true;
        QTest::newRow("on, dollar escaped") << Before::nothing << Switch::on << "/home/a$b/dictora"
                                            << "Exec=\"/home/a\\\\$b/dictora\"" << false << true;
        QTest::newRow("on, quote escaped") << Before::nothing << Switch::on << "/home/\"x\"/dictora"
                                           << "Exec=\"/home/\\\\\"x\\\\\"/dictora\"" << false << true;
        QTest::newRow("on, percent doubled") << Before::nothing << Switch::on << "/tmp/100%/dictora"
                                             << "Exec=/tmp/100%%/dictora" << false << true;
        QTest::newRow("on replaces a link, not its target") << Before::symlink << Switch::on << bin
                                                            << "Exec=/usr/bin/dictora" << false << true;
        QTest::newRow("off removes one written by hand") << Before::handWritten << Switch::off << bin << "" << false << false;
        QTest::newRow("off with nothing there") << Before::nothing << Switch::off << bin << "" << false << false;
        QTest::newRow("relative program refused") << Before::nothing << Switch::on << "dictora" << "" << true << false;
        QTest::newRow("folder cannot be created") << Before::folderBlocked << Switch::on << bin << "" << true << false;
        QTest::newRow("read-only folder") << Before::readOnlyFolder << Switch::on << bin << "" << true << false;
        QTest::newRow("a folder in the entry's place, off") << Before::entryIsFolder << Switch::off << bin << "" << true << false;
    }

    void entryOnDiskDecides()
    {
        QFETCH(Before, before);
        QFETCH(Switch, action);
        QFETCH(QString, program);
        QFETCH(QString, exec);
        QFETCH(bool, fails);
        QFETCH(bool, on);
        if (!stage(before))
            QSKIP("a read-only folder cannot be staged as root");
        const QByteArray blocker = test::readFile(autostart());
        const QByteArray linkTarget = test::readFile(launcher());
        QSettings settings(m_home->path() + QStringLiteral("/Dictora.conf"), QSettings::IniFormat);
        ProductPreferences preferences(settings);
        preferences.setStartsAtLogin(!on);

        StartAtLogin login(preferences, QStringLiteral("dictora"), program);
        QCOMPARE(login.entryPath(), entry());
        QString failure;
        if (action == Switch::read)
            login.refresh();
        else
            failure = login.setEnabled(action == Switch::on);
        QVERIFY2(failure.isEmpty() != fails, qPrintable(failure));
        if (fails && program != QLatin1String("dictora"))
            QVERIFY2(failure.contains(autostart()), qPrintable(failure));
        QCOMPARE(preferences.startsAtLogin(), on);
        settings.sync();
        QTRY_COMPARE(ProductPreferences(settings).startsAtLogin(), on); // written on the preferences' own thread

        const QFileInfo written(entry());
        if (!exec.isEmpty()) {
            QVERIFY(!written.isSymLink());
            QCOMPARE(test::readFile(entry()), StartAtLogin::entryText(program));
            QVERIFY2(test::readFile(entry()).contains("\n" + exec.toUtf8() + "\n"), test::readFile(entry()).constData());
        } else if (action != Switch::read) {
            QVERIFY(!written.isFile() && !written.isSymLink());
        }
        QCOMPARE(test::readFile(autostart()), blocker);
        QCOMPARE(test::readFile(launcher()), linkTarget);
        if (before == Before::entryIsFolder)
            QVERIFY(QFileInfo(entry() + QStringLiteral("/inside")).isDir());
        QVERIFY(QDir(autostart()).entryList({QStringLiteral("*.tmp"), QStringLiteral("*~")}, QDir::Files).isEmpty());
    }
};

QTEST_GUILESS_MAIN(StartAtLoginTest)
#include "tst_start_at_login.moc"
