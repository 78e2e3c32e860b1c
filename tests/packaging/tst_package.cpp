#include "support/TestSupport.h"

#include <QDirIterator>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using Ran = dictora::test::ProgramRun;

namespace {

// Packing and lintian take minutes on a loaded machine.
Ran runTool(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    return dictora::test::runProgram(program, arguments, input, QProcessEnvironment::systemEnvironment(), 300000);
}

} // namespace

// Builds the .deb with CPack, unpacks it with dpkg -x into a scratch root and
// checks what a user's machine would get.
class PackageTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_work;
    QString m_deb;
    QString m_root;
    QStringList m_files; // relative to the root

    QString unpacked(const QString &relative) const { return m_root + QLatin1Char('/') + relative; }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        const Ran pack = runTool(QStringLiteral(DICTORA_CPACK),
            {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("--config"), QStringLiteral(DICTORA_CPACK_CONFIG),
                QStringLiteral("-B"), m_work.path()});
        QVERIFY2(pack.exitCode == 0, qPrintable(pack.out + pack.err));
        const QStringList debs = QDir(m_work.path()).entryList({QStringLiteral("dictora_*.deb")});
        QCOMPARE(debs.size(), 1);
        m_deb = m_work.filePath(debs.first());
        m_root = m_work.filePath(QStringLiteral("root"));
        const Ran unpack = runTool(QStringLiteral("dpkg"), {QStringLiteral("-x"), m_deb, m_root});
        QVERIFY2(unpack.exitCode == 0, qPrintable(unpack.err));
        QDirIterator it(m_root, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext())
            m_files.append(QDir(m_root).relativeFilePath(it.next()));
        m_files.sort();
    }

    // What a user needs is there (the launcher, metainfo and manual:
    // validators; the PNG icons: iconsHaveTheirSize), and nothing for
    // developers or tests, nor an autostart for every user.
    void filesArePackaged()
    {
        for (const char *path : {"usr/bin/dictora", "usr/share/doc/dictora/copyright", "usr/share/doc/dictora/changelog.Debian.gz",
                 "usr/share/icons/hicolor/scalable/apps/dictora.svg", "usr/lib/udev/rules.d/60-dictora-uinput.rules"})
            QVERIFY2(m_files.contains(QLatin1String(path)), path);
        for (const QString &file : m_files) {
            QVERIFY2(!file.contains(QStringLiteral("scripted")), qPrintable(file));
            QVERIFY2(!file.startsWith(QStringLiteral("etc/")), qPrintable(file));
            QVERIFY2(!file.startsWith(QStringLiteral("usr/include/")), qPrintable(file));
            QVERIFY2(!file.endsWith(QStringLiteral(".a")) && !file.endsWith(QStringLiteral(".cmake")), qPrintable(file));
            QVERIFY2(!file.contains(QStringLiteral("/tests/")) && !file.contains(QStringLiteral("bench")), qPrintable(file));
        }
        const QString modules = QStringLiteral("usr/" DICTORA_LIBDIR "/dictora/libggml-cpu-");
        const qsizetype cpuVariants = m_files.filter(modules).size();
#ifdef DICTORA_PORTABLE
        QVERIFY2(cpuVariants >= 5, qPrintable(m_files.join(u'\n')));
        QVERIFY(m_files.contains(QStringLiteral("usr/" DICTORA_LIBDIR "/dictora/libggml-cpu-x64.so")));
#else
        QCOMPARE(cpuVariants, 0);
#endif
    }

    void iconsHaveTheirSize()
    {
        for (const QString &size : QStringLiteral(DICTORA_ICON_SIZES).split(u',')) {
            const QImage icon(unpacked(QStringLiteral("usr/share/icons/hicolor/%1x%1/apps/dictora.png").arg(size)));
            QCOMPARE(icon.width(), size.toInt());
            QCOMPARE(icon.height(), size.toInt());
        }
    }

    void validators_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("desktop entry") << "desktop-file-validate" << QStringList{"usr/share/applications/" DICTORA_APP_ID ".desktop"};
        QTest::newRow("metainfo") << "appstreamcli"
                                  << QStringList{"validate", "--no-net", "usr/share/metainfo/" DICTORA_APP_ID ".metainfo.xml"};
        QTest::newRow("manual page") << "man" << QStringList{"--warnings", "-l", "-Tutf8", "usr/share/man/man1/dictora.1.gz"};
        QTest::newRow("package") << "lintian" << QStringList{"--fail-on", "error", "DEB"};
    }

    void validators()
    {
        QFETCH(QString, tool);
        QFETCH(QStringList, arguments);
        if (QStandardPaths::findExecutable(tool).isEmpty())
            QFAIL(qPrintable(tool + QStringLiteral(" is missing: scripts/test installs it")));
        for (QString &argument : arguments) {
            if (argument == QLatin1String("DEB"))
                argument = m_deb;
            else if (argument.startsWith(QLatin1String("usr/")))
                argument = unpacked(argument);
        }
        const Ran ran = runTool(tool, arguments);
        const QString said = ran.out + ran.err;
        QVERIFY2(ran.exitCode == 0, qPrintable(said));
        if (tool == QLatin1String("man"))
            QVERIFY2(!said.contains(QStringLiteral("warning")), qPrintable(said));
    }

    // Depends comes from the libraries the program really links.
    void dependsOnLinkedLibraries()
    {
        const Ran fields = runTool(QStringLiteral("dpkg-deb"), {QStringLiteral("-f"), m_deb, QStringLiteral("Depends")});
        QCOMPARE(fields.exitCode, 0);
        for (const char *library : {"libc6", "libqt6core6", "libqt6widgets6", "libpulse0", "libsoxr0", "libxtst6", "qt6-qpa-plugins"})
            QVERIFY2(fields.out.contains(QLatin1String(library)), qPrintable(fields.out));
    }

    void unpackedProgramRuns_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::newRow("--version") << QStringList{"--version"} << QByteArray();
        QTest::newRow("format") << QStringList{"format"} << QByteArray("um so the list is one apples two pears\n");
        QTest::newRow("model path") << QStringList{"model", "path"} << QByteArray();
    }

    // The packed (stripped) program answers exactly as the one built here.
    void unpackedProgramRuns()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        dictora::test::IsolatedHome home;
        const Ran packed = runTool(unpacked(QStringLiteral("usr/bin/dictora")), arguments, input);
        const Ran built = runTool(QStringLiteral(DICTORA_EXECUTABLE), arguments, input);
        QVERIFY2(packed.exitCode == 0, qPrintable(packed.err));
        QVERIFY(!packed.out.isEmpty());
        QCOMPARE(packed.out, built.out);
        if (arguments.first() == QLatin1String("--version"))
            QCOMPARE(packed.out, QStringLiteral("dictora " DICTORA_VERSION "\n"));
    }
};

int main(int argc, char **argv)
{
    for (const char *tool : {"dpkg-deb", "dpkg"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
            return dictora::test::skipAll("dpkg-deb is missing: the package cannot be built here");
    }
    QGuiApplication app(argc, argv);
    PackageTest tc;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_package.moc"
