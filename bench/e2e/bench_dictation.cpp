// The latency a user feels and the cost of sitting idle, measured on the real
// program (dictora-scripted, whose recogniser returns a fixed text, so
// recognition time is zero and everything measured is our own overhead).
// Runs itself under the with-x and with-pulse wrappers when started bare.
#include "E2eSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonObject>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <unistd.h>
#include <vector>

using namespace dictora::test::e2e;
using dictora::test::x11::FakeKeyboard;

namespace {

constexpr int kDictations = 10;
constexpr int kIdleSeconds = 10;

void report(const char *what, std::vector<double> samples, const char *unit = "ms")
{
    if (samples.empty()) {
        std::printf("%-58s no samples\n", what);
        return;
    }
    std::sort(samples.begin(), samples.end());
    const double mean = std::accumulate(samples.begin(), samples.end(), 0.0) / double(samples.size());
    std::printf("%-58s runs=%zu median=%.1f mean=%.1f min=%.1f max=%.1f %s\n", what, samples.size(),
        samples[samples.size() / 2], mean, samples.front(), samples.back(), unit);
}

// utime + stime of a process, in clock ticks.
qint64 cpuTicks(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    // Fields after the command name, which may itself hold spaces.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 12 ? fields.at(11).toLongLong() + fields.at(12).toLongLong() : -1;
}

qint64 residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// Polls the log file (cheaply, by size first) until it holds `count` lines
// starting with prefix; returns the milliseconds waited, or -1.
double waitForLine(const DictoraRun &run, const QString &prefix, int count, const QElapsedTimer &since)
{
    qint64 seenSize = -1;
    while (since.elapsed() < 60000) {
        const qint64 size = QFileInfo(run.logPath()).size();
        if (size != seenSize) {
            seenSize = size;
            if (run.countLines(prefix) >= count)
                return double(since.nsecsElapsed()) / 1e6;
        }
        QThread::usleep(200);
    }
    return -1;
}

int runUnderWrappers(char **argv)
{
    if (!qEnvironmentVariableIsEmpty("DICTORA_BENCH_WRAPPED")) {
        std::printf("bench_dictation: the wrappers gave no X display or sound server\n");
        return 1;
    }
    qputenv("DICTORA_BENCH_WRAPPED", "1");
    std::vector<char *> args{const_cast<char *>(DICTORA_E2E_WITH_X), const_cast<char *>(DICTORA_E2E_WITH_PULSE)};
    for (char **arg = argv; *arg; ++arg)
        args.push_back(*arg);
    args.push_back(nullptr);
    ::execv(args.front(), args.data());
    std::perror("bench_dictation: cannot run tests/support/x11/with-x");
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return runUnderWrappers(argv);
    if (const int skip = checkEnvironment())
        return skip == 77 ? 0 : skip;
    QGuiApplication app(argc, argv);

    FakeKeyboard keyboard;
    QTemporaryDir scratch;
    DictoraRun run;
    QString why;
    // The product-shaped model: its buffers are the size of the real one's
    // (only the weights are missing), so resident memory is close to real.
    const ModelContract model{QStringLiteral("for-tests-ggml-large-v3-turbo-q5_0.bin"), 611057,
        QStringLiteral("50d4aac543cef5aee849416b94ef666a46a56c66ab39f0868de3e0bd7e2ad45d"),
        QStringLiteral("http://127.0.0.1:9/unreachable.bin")};
    const QString text = QStringLiteral("um so the quarterly numbers look good");
    run.writeSettings();
    run.writeSnippets({{QStringLiteral("quarterly"), QStringLiteral("Q3")}});
    run.setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), text);
    run.setEnvironment(QStringLiteral("DICTORA_MEASURE_GUI_STALLS"), QStringLiteral("1"));
    const QString clip = speechClip(scratch.path(), 1.0, &why);
    TextEditor editor(keyboard, scratch.filePath(QStringLiteral("editor.txt")));
    if (clip.isEmpty() || !run.useModel(model, true, &why) || !run.start(scriptedBinary(), &why)
        || !run.waitUntilModelReady(&why) || !editor.start(&why)) {
        std::printf("bench_dictation: %s\n", qPrintable(why));
        return 1;
    }

    // Idle: model loaded, window shown, no dictation.
    QThread::sleep(2);
    const qint64 ticksBefore = cpuTicks(run.pid());
    QElapsedTimer idle;
    idle.start();
    QThread::sleep(kIdleSeconds);
    const qint64 ticksAfter = cpuTicks(run.pid());
    const double idleSeconds = double(idle.nsecsElapsed()) / 1e9;
    const double idleCpu = double(ticksAfter - ticksBefore) / double(::sysconf(_SC_CLK_TCK)) / idleSeconds * 100.0;
    const qint64 idleRss = residentKiB(run.pid());

    std::vector<double> startLatency, stopLatency, pressToPaste, overhead, pasteDispatch, finalization, total;
    for (int i = 1; i <= kDictations; ++i) {
        QElapsedTimer pressed;
        pressed.start();
        pressShortcut(keyboard);
        const double started = waitForLine(run, QStringLiteral("recording started session="), i, pressed);
        if (started < 0 || !playIntoMicrophone(clip, &why)) {
            std::printf("bench_dictation: dictation %d did not start: %s\n%s\n", i, qPrintable(why),
                qPrintable(run.logText()));
            return 1;
        }
        pressed.start();
        pressShortcut(keyboard);
        const double accepted = waitForLine(run, QStringLiteral("stop key accepted"), i, pressed);
        const double keystroke = waitForLine(run, QStringLiteral("paste keystroke sent"), i, pressed);
        // The record is written before the phase returns to idle; a press in
        // between would be dropped.
        const double completed = waitForLine(run, QStringLiteral("recording completed"), i, pressed);
        // The journal is appended before "recording completed" is logged.
        if (accepted < 0 || keystroke < 0 || completed < 0 || run.records().size() < i) {
            std::printf("bench_dictation: dictation %d did not finish: %s\n%s\n", i, qPrintable(why),
                qPrintable(run.logText()));
            return 1;
        }
        const QJsonObject record = run.records().at(i - 1);
        if (record.value("outcome").toString() != QLatin1String("pasted")) {
            std::printf("bench_dictation: dictation %d ended %s\n", i, qPrintable(record.value("outcome").toString()));
            return 1;
        }
        const auto field = [&](const char *key) { return double(record.value(key).toInteger()); };
        startLatency.push_back(started);
        stopLatency.push_back(accepted);
        pressToPaste.push_back(keystroke);
        overhead.push_back(field("totalDurationMilliseconds") - field("recordingDurationMilliseconds")
            - field("earsDurationMilliseconds"));
        pasteDispatch.push_back(field("pasteDispatchDurationMilliseconds"));
        finalization.push_back(field("finalizationDurationMilliseconds"));
        total.push_back(field("totalDurationMilliseconds"));
    }
    const qint64 afterRss = residentKiB(run.pid());
    // The program's own heartbeat: one line per dictation, press to saved record.
    std::vector<double> stalls;
    const QString stallPrefix = QStringLiteral("gui thread longest stall ms=");
    if (!run.waitForLines(stallPrefix, kDictations, 10000, &why)) {
        std::printf("bench_dictation: %s\n", qPrintable(why));
        return 1;
    }
    for (const QString &message : run.messages()) {
        if (message.startsWith(stallPrefix))
            stalls.push_back(message.mid(stallPrefix.size()).toDouble());
    }

    std::printf("dictation (dictora-scripted, recognition time 0, %d runs, %.1f s of speech each)\n", kDictations, 1.0);
    report("start: shortcut press -> \"recording started\" logged", startLatency);
    report("stop: second press -> \"stop key accepted\" logged", stopLatency);
    report("stop: second press -> paste keystroke sent (wall)", pressToPaste);
    report("record: total - recording - ears (stop overhead)", overhead);
    report("record: pasteDispatchDurationMilliseconds", pasteDispatch);
    report("record: finalizationDurationMilliseconds", finalization);
    report("record: totalDurationMilliseconds", total);
    report("gui thread: longest stall per dictation (target < 16)", stalls);
    std::printf("%-58s %.2f %% of one core over %.1f s\n", "idle: CPU (model loaded, no dictation)", idleCpu, idleSeconds);
    std::printf("%-58s %.1f MiB\n", "idle: resident memory (VmRSS)", double(idleRss) / 1024.0);
    std::printf("%-58s %.1f MiB\n", "resident memory after the dictations", double(afterRss) / 1024.0);
    if (!run.stop(&why)) {
        std::printf("bench_dictation: %s\n", qPrintable(why));
        return 1;
    }
    return 0;
}
