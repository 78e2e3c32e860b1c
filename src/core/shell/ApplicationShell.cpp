#include "core/shell/ApplicationShell.h"

#include "core/DataPaths.h"
#include "core/RuntimeLog.h"
#include "core/SingleInstance.h"
#include "history/TranscriptJournal.h"

#include <QApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace dictora {

namespace {

int signalPipe[2] = {-1, -1};

void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop normally, so the instance socket is removed.
void quitOnTerminationSignals(QCoreApplication &app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
    struct sigaction action{};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

} // namespace

int runApplication(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Dictora"));
    QApplication::setApplicationName(QStringLiteral("Dictora"));
    QApplication::setQuitOnLastWindowClosed(false);

    const QString socketPath = DataPaths::instanceSocket();
    if (const auto reply = sendToRunningInstance(socketPath, QStringLiteral("show"))) {
        std::fprintf(stdout, "Dictora is already running; showing its window.\n");
        return 0;
    }

    QString failure;
    if (!DataPaths::ensureDataDirectory(&failure)) {
        std::fprintf(stderr, "dictora: the data directory is unavailable: %s\n", qPrintable(failure));
        return 1;
    }
    RuntimeLog log(DataPaths::logFile());
    TranscriptJournal journal(DataPaths::journalFile());
    try {
        journal.prepare();
    } catch (const JournalError &e) {
        log.write(QStringLiteral("journal prepare failed error=") + e.description());
    }

    SingleInstanceServer instance(socketPath, [&log](const QString &command) {
        if (command == QLatin1String("show")) {
            log.write(QStringLiteral("second launch; showing main window"));
            return QStringLiteral("ok");
        }
        return QStringLiteral("error: unknown command ") + command;
    });
    if (!instance.listen(&failure)) {
        std::fprintf(stderr, "dictora: cannot listen on %s: %s\n", qPrintable(socketPath), qPrintable(failure));
        return 1;
    }
    quitOnTerminationSignals(app);

    log.write(QStringLiteral("app started dataDirectory=") + DataPaths::dataDirectory());
    const int rc = app.exec();
    log.write(QStringLiteral("app quit"));
    return rc;
}

} // namespace dictora
