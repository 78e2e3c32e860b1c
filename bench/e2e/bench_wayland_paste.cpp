// Second press to text in the target on a headless Sway: dictora-scripted
// (its recogniser returns a fixed text at once, so only our own paste path
// is measured) pastes into foot through the Wayland backends. The clock
// runs from the second press until foot has received the whole text.
// Runs itself under the with-sway and with-pulse wrappers when started bare.
#include "E2eSupport.h"
#include "SwaySupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QLocalSocket>
#include <QFileInfo>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

using namespace dictora::test::e2e;
namespace sway = dictora::test::sway;

namespace {

constexpr int kDictations = 20;

int runUnderWrappers(char **argv)
{
    const QByteArray self = QFileInfo(QString::fromLocal8Bit(argv[0])).absoluteFilePath().toLocal8Bit();
    std::vector<char *> args{const_cast<char *>(DICTORA_E2E_WITH_SWAY), const_cast<char *>(DICTORA_E2E_WITH_PULSE),
                             const_cast<char *>(self.constData())};
    for (char **arg = argv + 1; *arg; ++arg)
        args.push_back(*arg);
    args.push_back(nullptr);
    ::execv(args.front(), args.data());
    std::perror("bench_wayland_paste: cannot run tests/support/wayland/with-sway");
    return 1;
}

void report(const char *what, std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const size_t n = samples.size();
    const double median = n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
    std::printf("%-58s runs=%zu median=%.1f worst=%.1f best=%.1f ms\n", what, n, median, samples.back(),
                samples.front());
}

int fail(const QString &why)
{
    std::fprintf(stderr, "bench_wayland_paste: %s\n", qPrintable(why));
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("SWAYSOCK") || qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return runUnderWrappers(argv);
    if (testData().isEmpty())
        return fail(QStringLiteral("../shared/testdata is not beside the repository"));
    qputenv("LC_ALL", "C.UTF-8");
    // It shows no window of its own.
    QCoreApplication app(argc, argv);

    QTemporaryDir scratch;
    DictoraRun run;
    QString why;
    run.writeSettings();
    if (!run.useModel(emptyWeightModel(), true, &why))
        return fail(why);
    const QString text = QStringLiteral("Please send the invoice today.");
    run.setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), text);
    run.setEnvironment(QStringLiteral("QT_QPA_PLATFORM"), QString());
    if (!run.start(scriptedBinary(), &why) || !run.waitUntilModelReady(&why))
        return fail(why);
    // Named foot so it is taken for the terminal it is (Ctrl+Shift+V).
    sway::Foot target(QStringLiteral("foot"), scratch.filePath(QStringLiteral("target.txt")));
    if (!target.start(&why))
        return fail(why);
    const QString clip = speechClip(scratch.path(), 1.0, &why);
    if (clip.isEmpty())
        return fail(why);

    // The binding's second press as the user has it (a new `dictora toggle`
    // process), and the same request written straight to the instance
    // socket, which leaves only the running program's own work on the clock.
    std::vector<double> viaCommand;
    std::vector<double> viaSocket;
    const QString socketPath = QDir(run.root()).filePath(QStringLiteral("runtime/dictora.socket"));
    for (int i = 1; i <= 2 * kDictations; ++i) {
        if (run.runVerb(scriptedBinary(), {QStringLiteral("toggle")}) != 0
            || !run.waitForLines(QStringLiteral("recording started session="), i, 30000, &why)
            || !playIntoMicrophone(clip, &why))
            return fail(why.isEmpty() ? QStringLiteral("the first toggle failed") : why);
        const bool command = i % 2;
        QElapsedTimer clock;
        clock.start();
        QLocalSocket socket;
        if (command) {
            if (run.runVerb(scriptedBinary(), {QStringLiteral("toggle")}) != 0)
                return fail(QStringLiteral("the second toggle failed"));
        } else {
            socket.connectToServer(socketPath);
            if (!socket.waitForConnected(5000) || socket.write("toggle\n") < 0 || !socket.flush())
                return fail(QStringLiteral("cannot reach %1: %2").arg(socketPath, socket.errorString()));
        }
        // Polled finely: the shared helper's 20 ms step would blur the figure.
        const QString expected = text.repeated(i);
        QDeadlineTimer deadline(20000);
        QString received = target.received();
        while (received != expected && !deadline.hasExpired()) {
            QTest::qWait(1);
            received = target.received();
        }
        if (received != expected)
            return fail(QStringLiteral("foot holds \"%1\"; log:\n%2").arg(received, run.logText()));
        (command ? viaCommand : viaSocket).push_back(double(clock.nsecsElapsed()) / 1e6);
        if (!run.waitForLines(QStringLiteral("recording completed outcome=pasted"), i, 30000, &why))
            return fail(why);
    }
    report("sway: second press (dictora toggle) to text in foot", viaCommand);
    report("sway: toggle on the instance socket to text in foot", viaSocket);
    run.stop();
    return 0;
}
