#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>

#include <csignal>
#include <cstdio>
#include <sys/resource.h>

namespace dictora::test {

QString sharedTestData()
{
    const QString dir = qEnvironmentVariable("DICTORA_SHARED_TESTDATA");
    if (dir.isEmpty() || !QFileInfo(dir).isDir())
        return {};
    return QDir(dir).absolutePath();
}

int skipAll(const char *reason)
{
    std::printf("SKIP: %s\n", reason);
    std::fflush(stdout);
    return kSkipExitCode;
}

bool runsUnderCi()
{
    const QByteArray ci = qgetenv("CI").trimmed().toLower();
    return ci == "true" || ci == "1" || ci == "yes";
}

int rigMissing(const char *reason)
{
    if (!runsUnderCi())
        return skipAll(reason);
    std::printf("FAIL: %s (CI=true: a missing rig fails the run)\n", reason);
    std::fflush(stdout);
    return 1;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList logMessages(const QString &logText)
{
    QStringList messages;
    for (const QString &line : logText.split(u'\n', Qt::SkipEmptyParts)) {
        const qsizetype end = line.startsWith(u'[') ? line.indexOf(QStringLiteral("] ")) : -1;
        messages.append(end < 0 ? line : line.mid(end + 2));
    }
    return messages;
}

bool linesInOrder(const QStringList &messages, const QStringList &prefixes, QString *why)
{
    qsizetype at = 0;
    for (const QString &prefix : prefixes) {
        while (at < messages.size() && !messages.at(at).startsWith(prefix))
            ++at;
        if (at == messages.size()) {
            *why = QStringLiteral("no line \"%1...\" in this order in the log:\n%2").arg(prefix, messages.join(u'\n'));
            return false;
        }
        ++at;
    }
    return true;
}

ProgramRun runProgram(const QString &program, const QStringList &arguments, const QByteArray &input,
    const QProcessEnvironment &environment, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(program, arguments);
    ProgramRun run;
    if (!process.waitForStarted())
        return run;
    process.write(input);
    process.closeWriteChannel();
    if (finished.isEmpty() && !finished.wait(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = QStringLiteral("(timed out)");
        return run;
    }
    if (process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

FileSizeLimit::FileSizeLimit(qint64 bytes)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    m_previous = limit.rlim_cur;
    limit.rlim_cur = rlim_t(bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = rlim_t(m_previous);
    setrlimit(RLIMIT_FSIZE, &limit);
}

IsolatedHome::IsolatedHome()
{
    const QDir root(m_dir.path());
    for (const char *sub : {"data", "config", "runtime"})
        root.mkpath(QLatin1String(sub));
    QFile::setPermissions(root.filePath(QStringLiteral("runtime")),
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("XDG_DATA_HOME", root.filePath(QStringLiteral("data")).toUtf8());
    qputenv("XDG_CONFIG_HOME", root.filePath(QStringLiteral("config")).toUtf8());
    qputenv("XDG_RUNTIME_DIR", root.filePath(QStringLiteral("runtime")).toUtf8());
}

QString IsolatedHome::dataHome() const { return QDir(m_dir.path()).filePath(QStringLiteral("data")); }

} // namespace dictora::test
