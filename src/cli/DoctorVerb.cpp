// `dictora doctor [--json]`: whether everything a dictation needs works on
// this desktop now, asked of the running Dictora when there is one (it holds
// the shortcut and the model), else checked here with the same services.
#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/DiagnosticReport.h"
#include "core/SingleInstance.h"
#include "app/Doctor.h"

namespace dictora::cli {

namespace {

const char *const kDoctorHelp =
    "Usage: dictora doctor [--json]\n"
    "\n"
    "Checks every part of a dictation on this desktop: what serves the shortcut,\n"
    "the target window, the clipboard and the paste keystroke, and whether each\n"
    "works now; the microphone (a three-second level test: speak while it runs);\n"
    "the speech model; the recognition device with the time of one recognition;\n"
    "the data folder and journal. Each failure says what to do. The running\n"
    "Dictora answers when there is one.\n"
    "\n"
    "  --json   one JSON object instead of text\n"
    "\n"
    "Exit status: 0 when everything a dictation needs works, 1 otherwise,\n"
    "2 bad options.\n";

// The microphone test, the model's checksum and two recognitions.
constexpr int kInstanceReplyMs = 180000;

} // namespace

int runDoctor(const QStringList &arguments)
{
    bool json = false;
    for (const QString &argument : arguments) {
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            printOut(QString::fromLatin1(kDoctorHelp));
            return kExitOk;
        }
        if (argument != QLatin1String("--json"))
            return usageError(QStringLiteral("doctor"), QStringLiteral("unknown option '%1'").arg(argument));
        json = true;
    }
    DiagnosticReport report;
    if (const auto reply = sendToRunningInstance(DataPaths::instanceSocket(), QStringLiteral("doctor"), kInstanceReplyMs)) {
        const std::optional<DiagnosticReport> answered = DiagnosticReport::fromJson(reply->toUtf8());
        if (!answered) {
            printErr(QStringLiteral("dictora doctor: the running Dictora answered: %1\n").arg(*reply));
            return kExitFailure;
        }
        report = *answered;
    } else {
        if (!json)
            printErr(QStringLiteral("Dictora is not running; checking with its services here. Speak for three seconds…\n"));
        report = Doctor::checkHere();
    }
    printOut(json ? QString::fromUtf8(report.toJson()) + QLatin1Char('\n') : report.toText());
    return report.dictationWorks() ? kExitOk : kExitFailure;
}

} // namespace dictora::cli
