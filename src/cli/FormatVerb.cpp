// `dictora format`: the text pipeline of a dictation (formatter, then the
// user's snippets) applied to standard input, for scripts and for checking
// what a transcript will turn into.
#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/ProductPreferences.h"
#include "core/SettingsFile.h"
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"
#include "text/SnippetStore.h"

#include <QFile>
#include <QSettings>
#include <QStringDecoder>

#include <cstdio>

namespace dictora::cli {

namespace {

const QString kVerb = QStringLiteral("format");

const char *const kHelp =
    "Usage: dictora format [--no-format] [--no-snippets] < TEXT\n"
    "\n"
    "Reads a transcript (UTF-8) from standard input and prints what Dictora would\n"
    "paste for it: filler words removed, spacing and capitals tidied, spoken lists\n"
    "numbered, then your snippets applied. The preferences FORMAT WORDS and\n"
    "USE SNIPPETS are honoured; with formatting off the text is only trimmed.\n"
    "\n"
    "Options:\n"
    "  --no-format    do not format this text (only trim it)\n"
    "  --no-snippets  do not apply snippets to this text\n"
    "  --help         show this help\n";

} // namespace

int runFormat(const QStringList &arguments)
{
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        printOut(QString::fromUtf8(kHelp));
        return kExitOk;
    }
    bool formatOff = false;
    bool snippetsOff = false;
    for (const QString &argument : arguments) {
        if (argument == QLatin1String("--no-format"))
            formatOff = true;
        else if (argument == QLatin1String("--no-snippets"))
            snippetsOff = true;
        else if (argument.startsWith(u'-'))
            return usageError(kVerb, QStringLiteral("unknown option '%1'").arg(argument));
        else
            return usageError(kVerb, QStringLiteral("unexpected argument '%1' (the text is read from standard input)").arg(argument));
    }

    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly)) {
        printErr(QStringLiteral("dictora format: cannot read standard input: %1\n").arg(input.errorString()));
        return kExitFailure;
    }
    const QByteArray bytes = input.readAll();
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString raw = decoder.decode(bytes);
    if (decoder.hasError()) {
        printErr(QStringLiteral("dictora format: standard input is not valid UTF-8\n"));
        return kExitFailure;
    }

    QString settingsProblem;
    QSettings settings(SettingsFile::readablePathOrNull(DataPaths::settingsFile(), &settingsProblem), QSettings::IniFormat);
    if (!settingsProblem.isEmpty())
        printErr(QStringLiteral("dictora format: settings ignored, defaults used: %1\n").arg(settingsProblem));
    const ProductPreferences prefs(settings);

    QString text = BasicFormatter::formatTranscript(raw, prefs.formattingEnabled() && !formatOff);
    if (prefs.snippetsEnabled() && !snippetsOff) {
        const SnippetStore::LoadResult snippets = SnippetStore::load(DataPaths::snippetsFile());
        if (!snippets.problem.isEmpty())
            printErr(QStringLiteral("dictora format: snippets not applied: %1\n").arg(snippets.problem));
        text = SnippetExpander::apply(text, snippets.entries);
    }
    if (!text.isEmpty())
        printOut(text + u'\n');
    return kExitOk;
}

} // namespace dictora::cli
