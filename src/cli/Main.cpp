#include "cli/Main.h"

#include "cli/CommandLine.h"
#include "cli/Verbs.h"
#include "app/ApplicationShell.h"

#include <QApplication>
#include <QCoreApplication>

#include <cstring>
#include <memory>

using namespace dictora;

namespace {

void printHelp()
{
    QString text = QStringLiteral("Usage: dictora [VERB] [OPTIONS]\n\n"
                                  "Without a verb, starts Dictora (or shows the window of the running one).\n\n"
                                  "Options:\n  --version   print the version\n\nVerbs:\n");
    for (const cli::Verb &verb : cli::verbs())
        text += QStringLiteral("  %1%2\n").arg(QString::fromLatin1(verb.name).leftJustified(12), QString::fromLatin1(verb.summary));
    text += QStringLiteral("\nRun 'dictora VERB --help' for a verb's options.\n");
    cli::printOut(text);
}

} // namespace

int dictora::cli::dictoraMain(int argc, char **argv, const SpeechPortFactory &speechFactory)
{
    if (argc < 2)
        return runApplication(argc, argv, speechFactory);
    const char *first = argv[1];
    if (std::strcmp(first, "--version") == 0 || std::strcmp(first, "-V") == 0) {
        cli::printOut(QStringLiteral("dictora %1\n").arg(QStringLiteral(DICTORA_VERSION)));
        return cli::kExitOk;
    }
    if (std::strcmp(first, "--help") == 0 || std::strcmp(first, "-h") == 0 || std::strcmp(first, "help") == 0) {
        printHelp();
        return cli::kExitOk;
    }
    for (const cli::Verb &verb : cli::verbs()) {
        if (std::strcmp(first, verb.name) != 0)
            continue;
        std::unique_ptr<QCoreApplication> app;
        // Without a display a GUI verb still runs, and says what it missed.
        const bool display = qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY");
        if (verb.needsGui && display) {
            app = std::make_unique<QApplication>(argc, argv);
        } else {
            app = std::make_unique<QCoreApplication>(argc, argv);
        }
        QCoreApplication::setOrganizationName(QStringLiteral("Dictora"));
        QCoreApplication::setApplicationName(QStringLiteral("Dictora"));
        return verb.run(QCoreApplication::arguments().mid(2));
    }
    if (first[0] == '-')
        return runApplication(argc, argv, speechFactory); // Qt's own options (-platform …)
    cli::printErr(QStringLiteral("dictora: unknown verb '%1'\nTry 'dictora --help'.\n").arg(QString::fromLocal8Bit(first)));
    return cli::kExitUsage;
}
