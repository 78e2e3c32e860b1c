#include "cli/Verbs.h"

#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/SingleInstance.h"

namespace dictora::cli {

int runTranscribe(const QStringList &arguments); // TranscribeVerb.cpp
int runFormat(const QStringList &arguments); // FormatVerb.cpp
int runRecord(const QStringList &arguments); // RecordVerb.cpp
int runModel(const QStringList &arguments); // ModelVerb.cpp

int runToggle(const QStringList &arguments)
{
    if (arguments.contains(QStringLiteral("--help"))) {
        printOut(QStringLiteral("Usage: dictora toggle\n\nStarts or stops a dictation in the running Dictora.\n"));
        return kExitOk;
    }
    if (!arguments.isEmpty())
        return usageError(QStringLiteral("toggle"), QStringLiteral("unexpected argument '%1'").arg(arguments.first()));
    const auto reply = sendToRunningInstance(DataPaths::instanceSocket(), QStringLiteral("toggle"));
    if (!reply) {
        printErr(QStringLiteral("dictora toggle: Dictora is not running.\n"));
        return kExitFailure;
    }
    if (reply->startsWith(QLatin1String("error"))) {
        printErr(QStringLiteral("dictora toggle: %1\n").arg(*reply));
        return kExitFailure;
    }
    return kExitOk;
}

const QList<Verb> &verbs()
{
    static const QList<Verb> all{
        {"toggle", "start or stop a dictation in the running Dictora", false, &runToggle},
        {"history", "list, search and archive the History", false, &runHistory},
        {"transcribe", "recognise the speech in an audio file and print the text", false, &runTranscribe},
        {"format", "format standard input as a dictation and apply the snippets", false, &runFormat},
        {"record", "record the microphone to a 16 kHz WAV file, showing the levels", false, &runRecord},
        {"model", "show, install (from a file) or locate the speech model", false, &runModel},
    };
    return all;
}

} // namespace dictora::cli
