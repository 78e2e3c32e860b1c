// `dictora transcribe FILE`: recognises a recording with the mandatory model,
// prepared exactly as the application prepares it, then formats it and applies
// the snippets as the preferences say.
#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/ProductPreferences.h"
#include "core/SettingsFile.h"
#include "speech/AccuracyModelContract.h"
#include "speech/AccuracyModelManager.h"
#include "speech/AudioFile.h"
#include "speech/RecognizerLogging.h"
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"
#include "text/SnippetStore.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QSettings>

#include <optional>

namespace dictora::cli {

namespace {

const QString kVerb = QStringLiteral("transcribe");

// The application retries forever; a command gives up after this many failed attempts.
constexpr int kAttempts = 3;

QString usage()
{
    return QStringLiteral(
        "Usage: dictora transcribe [--raw] [--verbose] [--device cpu|gpu] FILE\n"
        "\n"
        "Recognises the speech in FILE (WAV, FLAC or Ogg) with the local accuracy model and\n"
        "prints the text. The model is checked, downloaded and verified first when needed;\n"
        "its progress is shown on standard error.\n"
        "\n"
        "  --raw      print the recogniser's text as it is: no formatting, no snippets\n"
        "  --verbose  also show the speech library's own messages\n"
        "  --device   cpu: recognise on the processor; gpu: on the graphics card when one\n"
        "             is usable (the default, falling back to the processor)\n"
        "  --help     show this help\n");
}

QString megabytes(qint64 bytes)
{
    return QString::number(double(bytes) / 1e6, 'f', 1);
}

// Drives the manager until the model is ready; false (with the reason) when it gives up.
bool prepareModel(AccuracyModelManager &manager, QString *reason)
{
    QEventLoop loop;
    int failures = 0;
    bool ready = false;
    int shownPercent = -1;
    bool progressLineOpen = false;
    const auto endProgressLine = [&progressLineOpen] {
        if (progressLineOpen)
            printErr(QStringLiteral("\n"));
        progressLineOpen = false;
    };

    QObject::connect(&manager, &AccuracyModelManager::phaseChanged, &loop, [&](const AccuracyModelPhase &phase) {
        endProgressLine();
        printErr(phase.statusText() + QLatin1Char('\n'));
        switch (phase.kind()) {
        case AccuracyModelPhase::Kind::ready:
            ready = true;
            loop.quit();
            break;
        case AccuracyModelPhase::Kind::needsAttention:
            *reason = phase.statusText();
            loop.quit();
            break;
        case AccuracyModelPhase::Kind::retrying:
            if (++failures >= kAttempts) {
                *reason = phase.message();
                loop.quit();
            }
            break;
        default:
            break;
        }
    });
    QObject::connect(&manager, &AccuracyModelManager::progressChanged, &loop, [&](double progress) {
        if (manager.phase().kind() != AccuracyModelPhase::Kind::downloading)
            return;
        const int percent = int(progress * 100);
        if (percent == shownPercent)
            return;
        shownPercent = percent;
        printErr(QStringLiteral("\r  %1% (%2 of %3 MB)")
                     .arg(percent)
                     .arg(megabytes(manager.downloadedBytes()), megabytes(manager.contract().bytes)));
        progressLineOpen = true;
    });

    printErr(manager.phase().statusText() + QLatin1Char('\n'));
    manager.startAutomatically();
    if (!manager.phase().isReady() && reason->isEmpty())
        loop.exec();
    endProgressLine();
    return ready || manager.phase().isReady();
}

} // namespace

int runTranscribe(const QStringList &arguments)
{
    bool raw = false;
    bool verbose = false;
    std::optional<SpeechDevicePreference> device;
    QStringList files;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == QLatin1String("--device") || argument.startsWith(QLatin1String("--device="))) {
            QString value = argument.section(QLatin1Char('='), 1);
            if (argument == QLatin1String("--device")) {
                if (++i >= arguments.size())
                    return usageError(kVerb, QStringLiteral("--device needs a value: cpu or gpu"));
                value = arguments.at(i);
            }
            device = speechDevicePreferenceFromString(value);
            if (!device || *device == SpeechDevicePreference::automatic)
                return usageError(kVerb, QStringLiteral("unknown device '%1' (cpu or gpu)").arg(value));
            continue;
        }
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            printOut(usage());
            return kExitOk;
        }
        if (argument == QLatin1String("--raw"))
            raw = true;
        else if (argument == QLatin1String("--verbose"))
            verbose = true;
        else if (argument.startsWith(QLatin1Char('-')) && argument != QLatin1String("-"))
            return usageError(kVerb, QStringLiteral("unknown option '%1'").arg(argument));
        else
            files.append(argument);
    }
    if (files.isEmpty())
        return usageError(kVerb, QStringLiteral("no audio file given"));
    if (files.size() > 1)
        return usageError(kVerb, QStringLiteral("one audio file at a time ('%1' is extra)").arg(files.at(1)));

    setRecognizerLibraryLogging(verbose);

    DecodedAudio audio;
    try {
        audio = AudioFile::decodeToMono16k(files.first());
    } catch (const std::bad_alloc &) {
        printErr(QStringLiteral("dictora transcribe: %1 is too long to decode in memory\n").arg(files.first()));
        return kExitFailure;
    } catch (const Error &error) {
        printErr(QStringLiteral("dictora transcribe: %1\n").arg(error.description()));
        return kExitFailure;
    }

    if (!audio.shortfall.isEmpty())
        printErr(QStringLiteral("dictora transcribe: %1\n").arg(audio.shortfall));

    QString settingsProblem;
    QSettings store(SettingsFile::readablePathOrNull(DataPaths::settingsFile(), &settingsProblem), QSettings::IniFormat);
    if (!settingsProblem.isEmpty())
        printErr(QStringLiteral("dictora transcribe: settings ignored, defaults used: %1\n").arg(settingsProblem));
    std::unique_ptr<AccuracyModelManager> manager;
    try {
        AccuracyModelManager::Options options;
        options.contract = AccuracyModelContract::current();
        options.devicePreference =
            speechDevicePreferenceFromString(store.value(QLatin1String(kSpeechDeviceSettingKey)).toString())
                .value_or(SpeechDevicePreference::automatic);
        // The option says what this run does, whatever the environment says.
        if (device)
            qputenv("DICTORA_SPEECH_DEVICE", rawValue(*device).toUtf8());
        manager = std::make_unique<AccuracyModelManager>(options, nullptr);
    } catch (const Error &error) {
        printErr(QStringLiteral("dictora transcribe: %1\n").arg(error.description()));
        return kExitFailure;
    }
    QString reason;
    if (!prepareModel(*manager, &reason)) {
        printErr(QStringLiteral("dictora transcribe: the accuracy model could not be made ready: %1\n").arg(reason));
        return kExitFailure;
    }

    if (device == SpeechDevicePreference::gpu && !manager->engine().usesGpu())
        printErr(QStringLiteral("no usable GPU found; recognising on the CPU\n"));

    QFuture<AccurateSpeechResult> future = manager->transcribe(audio.samples);
    AccurateSpeechResult result;
    try {
        result = future.result();
    } catch (const Error &error) {
        printErr(QStringLiteral("dictora transcribe: %1\n").arg(error.description()));
        return kExitFailure;
    }
    printErr(QStringLiteral("recognised %1 s of audio in %2 ms on %3\n")
                 .arg(QString::number(audio.seconds(), 'f', 1))
                 .arg(result.durationMilliseconds)
                 .arg(manager->engine().deviceName()));

    QString text = result.text;
    if (!raw) {
        const ProductPreferences preferences(store);
        text = BasicFormatter::formatTranscript(text, preferences.formattingEnabled());
        if (preferences.snippetsEnabled()) {
            const SnippetStore::LoadResult snippets = SnippetStore::load(DataPaths::snippetsFile());
            if (!snippets.problem.isEmpty())
                printErr(QStringLiteral("dictora transcribe: snippets not applied: %1\n").arg(snippets.problem));
            text = SnippetExpander::apply(text, snippets.entries);
        }
    }
    if (text.isEmpty()) {
        printErr(QStringLiteral("(no speech recognised)\n"));
        return kExitOk;
    }
    printOut(text + QLatin1Char('\n'));
    return kExitOk;
}

} // namespace dictora::cli
