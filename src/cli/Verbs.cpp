#include "cli/Verbs.h"

#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/SingleInstance.h"

namespace dictora::cli {

int runTranscribe(const QStringList &arguments); // TranscribeVerb.cpp
int runFormat(const QStringList &arguments); // FormatVerb.cpp
int runRecord(const QStringList &arguments); // RecordVerb.cpp
int runModel(const QStringList &arguments); // ModelVerb.cpp
int runDoctor(const QStringList &arguments); // DoctorVerb.cpp

namespace {
// One line to the running instance; its "error…" replies are failures.
int sendInstanceCommand(const QString &verb, const QString &help, const QStringList &arguments, int timeoutMs = 3000)
{
    if (arguments.contains(QStringLiteral("--help"))) {
        printOut(help);
        return kExitOk;
    }
    if (!arguments.isEmpty())
        return usageError(verb, QStringLiteral("unexpected argument '%1'").arg(arguments.first()));
    const auto reply = sendToRunningInstance(DataPaths::instanceSocket(), verb, timeoutMs);
    if (!reply) {
        printErr(QStringLiteral("dictora %1: Dictora is not running.\n").arg(verb));
        return kExitFailure;
    }
    if (reply->startsWith(QLatin1String("error"))) {
        printErr(QStringLiteral("dictora %1: %2\n").arg(verb, *reply));
        return kExitFailure;
    }
    return kExitOk;
}
} // namespace

int runToggle(const QStringList &arguments)
{
    return sendInstanceCommand(QStringLiteral("toggle"),
        QStringLiteral("Usage: dictora toggle\n\nStarts or stops a dictation in the running Dictora.\n"), arguments);
}

// For desktops whose key bindings run one command on key down and another
// on key up: with hold to talk on, holding the key records until release.
int runPress(const QStringList &arguments)
{
    return sendInstanceCommand(QStringLiteral("press"),
        QStringLiteral("Usage: dictora press\n\nTells the running Dictora that the shortcut key went down "
                       "(bind it to the key's press;\n\"dictora release\" to its release).\n"),
        arguments);
}

int runRelease(const QStringList &arguments)
{
    return sendInstanceCommand(QStringLiteral("release"),
        QStringLiteral("Usage: dictora release\n\nTells the running Dictora that the shortcut key came up.\n"), arguments);
}

// Long enough for the target to come to the front and the user's keys to come up.
constexpr int kPasteReplyMs = 10000;

int runPasteLast(const QStringList &arguments)
{
    return sendInstanceCommand(QStringLiteral("paste-last"),
        QStringLiteral("Usage: dictora paste-last\n\nPastes the text of the last dictation again into the window that "
                       "has the focus,\nthe way the running Dictora pastes a dictation.\n"),
        arguments, kPasteReplyMs);
}

int runCopyLast(const QStringList &arguments)
{
    return sendInstanceCommand(QStringLiteral("copy-last"),
        QStringLiteral("Usage: dictora copy-last\n\nPuts the text of the last dictation on the clipboard.\n"), arguments);
}

const QList<Verb> &verbs()
{
    static const QList<Verb> all{
        {"toggle", "start or stop a dictation in the running Dictora", false, &runToggle},
        {"press", "the shortcut key went down (for a desktop's own key binding)", false, &runPress},
        {"release", "the shortcut key came up (for a desktop's own key binding)", false, &runRelease},
        {"paste-last", "paste the last dictation again into the focused window", false, &runPasteLast},
        {"copy-last", "put the last dictation on the clipboard", false, &runCopyLast},
        {"doctor", "check everything a dictation needs on this desktop", true, &runDoctor},
        {"history", "list, search and archive the History", false, &runHistory},
        {"transcribe", "recognise the speech in an audio file and print the text", false, &runTranscribe},
        {"format", "format standard input as a dictation and apply the snippets", false, &runFormat},
        {"record", "record the microphone to a 16 kHz WAV file, showing the levels", false, &runRecord},
        {"model", "show, install (from a file) or locate the speech model", false, &runModel},
    };
    return all;
}

} // namespace dictora::cli
