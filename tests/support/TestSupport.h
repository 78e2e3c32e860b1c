#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>

namespace dictora::test {

// CTest treats this exit code as "skipped".
constexpr int kSkipExitCode = 77;

// ../shared/testdata beside the repository, or empty when it is absent.
QString sharedTestData();
// Prints the reason and returns kSkipExitCode. For absent test data only:
// a missing rig goes through rigMissing().
int skipAll(const char *reason);
// True when the suite runs under CI (CI=true), where no rig may be missing.
bool runsUnderCi();
// An X server, a sound server or a paste target the test needs is absent:
// a visible skip on a developer's machine, a failure (exit 1) under CI.
int rigMissing(const char *reason);

// A whole file, or empty when it cannot be read.
QByteArray readFile(const QString &path);
// A runtime log's messages, each line's "[time] " prefix removed.
QStringList logMessages(const QString &logText);
// True when a message starting with each prefix appears, in this order; else
// *why names the first one missing.
bool linesInOrder(const QStringList &messages, const QStringList &prefixes, QString *why);

// One run of a program to its end, the event loop served meanwhile (the test
// may be the HTTP server it talks to). exitCode is -1 when it crashed or
// timed out.
struct ProgramRun {
    int exitCode = -1;
    QString out;
    QString err;
};
ProgramRun runProgram(const QString &program, const QStringList &arguments, const QByteArray &input = {},
    const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(), int timeoutMs = 120000);

// Replaces a file (creating its folder); false when it cannot be written.
bool writeFile(const QString &path, const QByteArray &bytes);

// Lowers this process's file-size limit (RLIMIT_FSIZE) for as long as it
// lives: writes past `bytes` fail with EFBIG, as they would on a full disk.
// SIGXFSZ is ignored meanwhile, so the write fails instead of the process.
class FileSizeLimit {
public:
    explicit FileSizeLimit(qint64 bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    quint64 m_previous = 0;
};

// Points XDG_DATA_HOME, XDG_CONFIG_HOME and XDG_RUNTIME_DIR into a fresh
// temporary folder for as long as it lives, so tests never touch the user's files.
class IsolatedHome {
public:
    IsolatedHome();
    QString path() const { return m_dir.path(); }
    QString dataHome() const;

private:
    QTemporaryDir m_dir;
};

} // namespace dictora::test

// rigMissing() inside a test function: QSKIP, or QFAIL under CI.
#define DICTORA_RIG_MISSING(reason)                                                          \
    do {                                                                                     \
        if (dictora::test::runsUnderCi())                                                    \
            QFAIL(qPrintable(QStringLiteral("%1 (CI=true: a missing rig fails the run)")    \
                                 .arg(QString(reason))));                                    \
        QSKIP(qPrintable(QString(reason)));                                                  \
    } while (false)

// A QTest main for tests that need ../shared/testdata: skipped visibly without it.
#define DICTORA_TEST_MAIN_WITH_TESTDATA(TestClass)                                         \
    int main(int argc, char **argv)                                                        \
    {                                                                                      \
        if (dictora::test::sharedTestData().isEmpty())                                     \
            return dictora::test::skipAll("../shared/testdata is not beside the repository"); \
        QCoreApplication app(argc, argv);                                                  \
        TestClass tc;                                                                      \
        QTEST_SET_MAIN_SOURCE_PATH                                                         \
        return QTest::qExec(&tc, argc, argv);                                              \
    }
