// `dictora model status|install FILE|path`: the one speech model, seen and
// installed from the command line, e.g. on a machine without internet.
#include "cli/CommandLine.h"
#include "core/DataPaths.h"
#include "core/SingleInstance.h"
#include "speech/AccuracyModelContract.h"
#include "speech/ModelInstall.h"
#include "speech/ModelVerifier.h"
#include "speech/VoiceActivity.h"

#include <QFileInfo>

namespace dictora::cli {

namespace {

const QString kVerb = QStringLiteral("model");

const char *const kHelp =
    "Usage: dictora model status\n"
    "       dictora model install FILE\n"
    "       dictora model path\n"
    "\n"
    "  status        where the model is, its size, whether it passes its SHA-256\n"
    "                check, and what the running Dictora is doing with it; the\n"
    "                same for the voice-activity model that finds the speech\n"
    "  install FILE  checks FILE's size and SHA-256 against the model Dictora needs\n"
    "                (or the voice-activity model, when FILE has its size), then\n"
    "                installs it; a running Dictora starts using it at once.\n"
    "                A wrong file is refused and the installed model is kept\n"
    "  path          prints where the model is installed\n";

QString fileStatus(const AccuracyModelContract &contract)
{
    const QString path = contract.installedPath();
    const QFileInfo info(path);
    QString text = QStringLiteral("model:    %1\npath:     %2\n").arg(contract.fileName, path);
    if (!info.exists()) {
        text += QStringLiteral("size:     not installed (%1 bytes expected)\nverified: no\n").arg(contract.bytes);
    } else {
        text += QStringLiteral("size:     %1 bytes (%2 expected)\n").arg(info.size()).arg(contract.bytes);
        const bool valid = ModelVerifier::isValidModel(path, contract);
        text += QStringLiteral("verified: %1\n").arg(valid ? QStringLiteral("yes, size and SHA-256 match")
                                                            : QStringLiteral("no, it does not match the model"));
    }
    return text;
}

int runStatus(const AccuracyModelContract &contract, const AccuracyModelContract &voiceActivity)
{
    QString text = fileStatus(contract);
    const auto reply = sendToRunningInstance(DataPaths::instanceSocket(), QStringLiteral("model-status"));
    text += QStringLiteral("running:  %1\n").arg(reply ? *reply : QStringLiteral("Dictora is not running"));
    text += QStringLiteral("\nvoice activity (finds the speech; without it whole recordings are recognised)\n")
        + fileStatus(voiceActivity);
    printOut(text);
    return kExitOk;
}

int runInstall(const AccuracyModelContract &contract, const QString &file)
{
    QString failure;
    if (!DataPaths::ensureDataDirectory(&failure)) {
        printErr(QStringLiteral("dictora model install: the data directory is unavailable: %1\n").arg(failure));
        return kExitFailure;
    }
    printErr(QStringLiteral("Verifying %1…\n").arg(file));
    const ModelInstall::Outcome outcome = ModelInstall::installVerifiedCopy(file, contract, contract.installedPath());
    if (!outcome.installed) {
        printErr(QStringLiteral("dictora model install: refused: %1 Nothing was installed.\n").arg(outcome.problem));
        return kExitFailure;
    }
    printOut(QStringLiteral("Installed %1\n").arg(contract.installedPath()));
    if (sendToRunningInstance(DataPaths::instanceSocket(), QStringLiteral("model-installed")))
        printOut(QStringLiteral("The running Dictora is loading it now.\n"));
    return kExitOk;
}

} // namespace

int runModel(const QStringList &arguments)
{
    if (arguments.isEmpty())
        return usageError(kVerb, QStringLiteral("say status, install FILE or path"));
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        printOut(QString::fromUtf8(kHelp));
        return kExitOk;
    }
    AccuracyModelContract contract;
    AccuracyModelContract voiceActivity;
    try {
        contract = AccuracyModelContract::current();
        voiceActivity = VoiceActivityModel::current();
    } catch (const Error &error) {
        printErr(QStringLiteral("dictora model: %1\n").arg(error.description()));
        return kExitFailure;
    }
    const QString action = arguments.first();
    const QStringList rest = arguments.mid(1);
    if (action == QLatin1String("install")) {
        if (rest.size() != 1)
            return usageError(kVerb, QStringLiteral("install takes one FILE"));
        // The two files differ in size by orders of magnitude: the size says which one is meant.
        const qint64 size = QFileInfo(rest.first()).size();
        const bool detector = size == voiceActivity.bytes && size != contract.bytes;
        return runInstall(detector ? voiceActivity : contract, rest.first());
    }
    if (!rest.isEmpty())
        return usageError(kVerb, QStringLiteral("unexpected argument '%1'").arg(rest.first()));
    if (action == QLatin1String("status"))
        return runStatus(contract, voiceActivity);
    if (action == QLatin1String("path")) {
        printOut(contract.installedPath() + QLatin1Char('\n'));
        return kExitOk;
    }
    return usageError(kVerb, QStringLiteral("unknown action '%1'").arg(action));
}

} // namespace dictora::cli
