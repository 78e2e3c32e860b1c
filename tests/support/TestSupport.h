#pragma once

#include <QString>
#include <QTemporaryDir>
#include <QtTest>

namespace dictora::test {

// CTest treats this exit code as "skipped".
constexpr int kSkipExitCode = 77;

// ../shared/testdata beside the repository, or empty when it is absent.
QString sharedTestData();
// Prints the reason and returns kSkipExitCode.
int skipAll(const char *reason);

// A whole file, or empty when it cannot be read.
QByteArray readFile(const QString &path);
// Replaces a file (creating its folder); false when it cannot be written.
bool writeFile(const QString &path, const QByteArray &bytes);

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
