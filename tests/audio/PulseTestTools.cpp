#include "PulseTestTools.h"

#include <QFile>
#include <QRegularExpression>
#include <QThread>

#include <cmath>

namespace dictora::test::pulse {

bool serverConfigured()
{
    return !qEnvironmentVariableIsEmpty("PULSE_SERVER");
}

bool runTool(const QString &program, const QStringList &arguments, QString *output)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        return false;
    }
    if (output)
        *output = QString::fromUtf8(process.readAllStandardOutput());
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qWarning("%s %s failed: %s", qPrintable(program), qPrintable(arguments.join(u' ')),
                 process.readAllStandardError().constData());
        return false;
    }
    return true;
}

QString pactl(const QStringList &arguments, bool *ok)
{
    QString output;
    const bool success = runTool(QStringLiteral("pactl"), arguments, &output);
    if (ok)
        *ok = success;
    return output.trimmed();
}

int loadModule(const QString &module, const QStringList &arguments)
{
    bool ok = false;
    const QString index = pactl(QStringList{QStringLiteral("load-module"), module} + arguments, &ok);
    return ok ? index.toInt() : -1;
}

bool unloadModule(const QString &moduleOrIndex)
{
    bool ok = false;
    pactl({QStringLiteral("unload-module"), moduleOrIndex}, &ok);
    return ok;
}

VirtualMicrophone createMicrophone(const QString &name, int rate, int channels)
{
    VirtualMicrophone mic;
    mic.sink = name + QStringLiteral("_sink");
    mic.source = name;
    mic.sinkModule = loadModule(QStringLiteral("module-null-sink"),
                                {QStringLiteral("sink_name=%1").arg(mic.sink), QStringLiteral("rate=%1").arg(rate),
                                 QStringLiteral("channels=%1").arg(channels), QStringLiteral("format=float32le")});
    if (mic.sinkModule < 0)
        return mic;
    mic.sourceModule = loadModule(QStringLiteral("module-remap-source"),
                                  {QStringLiteral("master=%1.monitor").arg(mic.sink), QStringLiteral("source_name=%1").arg(mic.source)});
    if (mic.sourceModule >= 0)
        pactl({QStringLiteral("set-default-source"), mic.source});
    return mic;
}

void removeMicrophone(const VirtualMicrophone &microphone)
{
    if (microphone.sourceModule >= 0)
        unloadModule(QString::number(microphone.sourceModule));
    if (microphone.sinkModule >= 0)
        unloadModule(QString::number(microphone.sinkModule));
}

bool restoreDefaultMicrophone()
{
    const QString sources = pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sources")});
    if (!sources.contains(QRegularExpression(QStringLiteral("\\bvmic\\b")))) {
        if (!pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")}).contains(QLatin1String("vmic_sink"))
            && loadModule(QStringLiteral("module-null-sink"), {QStringLiteral("sink_name=vmic_sink")}) < 0)
            return false;
        if (loadModule(QStringLiteral("module-remap-source"), {QStringLiteral("master=vmic_sink.monitor"), QStringLiteral("source_name=vmic")}) < 0)
            return false;
    }
    bool ok = false;
    pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")}, &ok);
    return ok;
}

bool removeEveryMicrophone()
{
    return unloadModule(QStringLiteral("module-remap-source")) && unloadModule(QStringLiteral("module-null-sink"));
}

bool synthesize(const QString &file, int rate, int channels, double seconds, const QString &synth)
{
    return runTool(QStringLiteral("sox"), QStringList{QStringLiteral("-n"), QStringLiteral("-r"), QString::number(rate),
        QStringLiteral("-c"), QString::number(channels), QStringLiteral("-e"), QStringLiteral("float"), QStringLiteral("-b"),
        QStringLiteral("32"), file, QStringLiteral("synth"), QString::number(seconds)}
        + synth.split(u' ') + QStringList{QStringLiteral("vol"), QStringLiteral("0.5")});
}

PipeMicrophone createPipeMicrophone(const QString &name, const QString &fifo, int rate, int channels)
{
    PipeMicrophone mic;
    mic.source = name;
    mic.fifo = fifo;
    mic.module = loadModule(QStringLiteral("module-pipe-source"),
                            {QStringLiteral("file=%1").arg(fifo), QStringLiteral("source_name=%1").arg(name),
                             QStringLiteral("format=float32le"), QStringLiteral("rate=%1").arg(rate),
                             QStringLiteral("channels=%1").arg(channels)});
    if (mic.module >= 0)
        pactl({QStringLiteral("set-default-source"), name});
    return mic;
}

bool feedPipe(const PipeMicrophone &microphone, const QByteArray &interleavedFloats, int bytesPerSecond)
{
    // Read-write, so opening never waits for the other end.
    QFile fifo(microphone.fifo);
    if (!fifo.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        return false;
    const qsizetype step = qsizetype(bytesPerSecond / 100) / 8 * 8; // 10 ms, whole frames
    for (qsizetype at = 0; at < interleavedFloats.size(); at += step) {
        const QByteArray piece = interleavedFloats.mid(at, step);
        if (fifo.write(piece) != piece.size())
            return false;
        QThread::msleep(10);
    }
    return true;
}

std::unique_ptr<QProcess> play(const QString &file, const QString &sink)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // 200 ms: with paplay's default two seconds the null sink renders in
    // late bursts, while 20 ms underruns on a busy machine and garbles the sound.
    process->start(QStringLiteral("paplay"), {QStringLiteral("--latency-msec=200"), QStringLiteral("-d"), sink, file});
    return process;
}

double correlationAt(const std::vector<float> &haystack, qsizetype lag, const std::vector<float> &needle)
{
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < needle.size(); ++i) {
        const qsizetype j = lag + qsizetype(i);
        const double a = (j >= 0 && j < qsizetype(haystack.size())) ? haystack[size_t(j)] : 0.0;
        const double b = needle[i];
        ab += a * b;
        aa += a * a;
        bb += b * b;
    }
    return (aa > 0 && bb > 0) ? ab / std::sqrt(aa * bb) : 0;
}

} // namespace dictora::test::pulse
