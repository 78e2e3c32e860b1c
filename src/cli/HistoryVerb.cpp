#include "cli/CommandLine.h"
#include "cli/Verbs.h"
#include "core/DataPaths.h"
#include "history/HistoryFilter.h"
#include "history/TranscriptHistoryArchive.h"
#include "history/TranscriptPresentation.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>

namespace dictora::cli {

namespace {

const QString kVerb = QStringLiteral("history");

const char *kHelp = "Usage: dictora history [--json] [--search TEXT] [--hour H] [--day D] [--month M] [--year Y]\n"
                    "       dictora history archive FILE\n"
                    "\n"
                    "Prints the History as the window lists it, newest first: save time, outcome\n"
                    "and a preview, one record per line. The filters use the local time of saving.\n"
                    "\n"
                    "  --json         print the records as JSON lines instead\n"
                    "  --search TEXT  keep transcripts containing TEXT (case and accents ignored)\n"
                    "  --hour H       hour of day, 0-23\n"
                    "  --day D        day of month, 1-31\n"
                    "  --month M      month, 1-12\n"
                    "  --year Y       calendar year, 1-9999\n"
                    "\n"
                    "archive FILE writes every record to FILE (a folder gets the suggested file\n"
                    "name), reads it back to verify it, and only then clears the History.\n";

int archive(const QStringList &arguments)
{
    if (arguments.contains(QStringLiteral("--help"))) {
        printOut(QString::fromLatin1(kHelp));
        return kExitOk;
    }
    if (arguments.size() != 1 || arguments.first().startsWith(QLatin1Char('-')))
        return usageError(kVerb, QStringLiteral("archive needs exactly one destination FILE"));
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QString destination = arguments.first();
    if (QFileInfo(destination).isDir())
        destination = QDir(destination).filePath(TranscriptHistoryArchive::suggestedFilename(now));
    try {
        const TranscriptHistoryArchive written
            = archiveAndClear(TranscriptJournal(DataPaths::journalFile()), destination, now);
        printOut(QStringLiteral("History Archived: Saved and verified %1 transcriptions in %2. Your in-app History is now clear.\n")
                     .arg(written.recordCount)
                     .arg(QFileInfo(destination).fileName()));
        return kExitOk;
    } catch (const Error &e) {
        printErr(QStringLiteral("Archive Failed: %1\n").arg(e.description()));
        return kExitFailure;
    }
}

} // namespace

int runHistory(const QStringList &arguments)
{
    if (!arguments.isEmpty() && arguments.first() == QLatin1String("archive"))
        return archive(arguments.mid(1));

    QCommandLineParser parser;
    const QCommandLineOption help(QStringLiteral("help"));
    const QCommandLineOption json(QStringLiteral("json"));
    const QCommandLineOption search(QStringLiteral("search"), QString(), QStringLiteral("TEXT"));
    const QCommandLineOption hour(QStringLiteral("hour"), QString(), QStringLiteral("H"));
    const QCommandLineOption day(QStringLiteral("day"), QString(), QStringLiteral("D"));
    const QCommandLineOption month(QStringLiteral("month"), QString(), QStringLiteral("M"));
    const QCommandLineOption year(QStringLiteral("year"), QString(), QStringLiteral("Y"));
    parser.addOptions({help, json, search, hour, day, month, year});
    if (!parser.parse(QStringList{QStringLiteral("dictora")} + arguments))
        return usageError(kVerb, parser.errorText());
    if (parser.isSet(help)) {
        printOut(QString::fromLatin1(kHelp));
        return kExitOk;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(kVerb, QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));

    HistoryQuery query;
    query.search = parser.value(search);
    struct Range {
        const QCommandLineOption &option;
        std::optional<int> &target;
        int low, high;
    };
    for (const Range &range : {Range{hour, query.hour, 0, 23}, Range{day, query.day, 1, 31},
             Range{month, query.month, 1, 12}, Range{year, query.year, 1, 9999}}) {
        if (!parser.isSet(range.option))
            continue;
        bool ok = false;
        const int value = parser.value(range.option).toInt(&ok);
        if (!ok || value < range.low || value > range.high)
            return usageError(kVerb, QStringLiteral("--%1 must be a whole number from %2 to %3, not '%4'")
                                         .arg(range.option.names().first())
                                         .arg(range.low)
                                         .arg(range.high)
                                         .arg(parser.value(range.option)));
        range.target = value;
    }

    QList<TranscriptRecord> records;
    try {
        records = TranscriptJournal(DataPaths::journalFile()).readAll();
    } catch (const Error &e) {
        printErr(QStringLiteral("History Error: History could not be opened: %1\n").arg(e.description()));
        return kExitFailure;
    }
    QString out;
    for (const TranscriptRecord &r : HistoryFilter::apply(records, query)) {
        if (parser.isSet(json)) {
            out += QString::fromUtf8(r.toJsonLine()) + QLatin1Char('\n');
            continue;
        }
        out += r.savedAt.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QLatin1Char(' ')
            + rawValue(r.outcome).leftJustified(9) + QLatin1Char(' ')
            + TranscriptPresentation::rowPreview(r.transcript) + QLatin1Char('\n');
    }
    printOut(out);
    return kExitOk;
}

} // namespace dictora::cli
