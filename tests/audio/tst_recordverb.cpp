// `dictora record` end to end: the real binary against the private PulseAudio
// server (run under with-pulse).
#include "PulseTestTools.h"
#include "audio/WavFile.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <cmath>

namespace pulse = dictora::test::pulse;

namespace {

using Run = dictora::test::ProgramRun;

Run runDictora(const QStringList &arguments)
{
    return dictora::test::runProgram(QStringLiteral(DICTORA_BINARY), QStringList{QStringLiteral("record")} + arguments);
}

} // namespace

class RecordVerbTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private Q_SLOTS:
    void options_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message"); // in stdout for 0, stderr otherwise

        const QString file = m_dir.filePath(QStringLiteral("x.wav"));
        QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0 << QStringLiteral("Usage: dictora record");
        QTest::newRow("no file") << QStringList{} << 2 << QStringLiteral("missing FILE.wav");
        QTest::newRow("negative seconds") << QStringList{QStringLiteral("--seconds=-1"), file} << 2 << QStringLiteral("above 0");
        QTest::newRow("seconds not a number") << QStringList{QStringLiteral("--seconds"), QStringLiteral("ten"), file} << 2 << QStringLiteral("'ten'");
        QTest::newRow("over the limit") << QStringList{QStringLiteral("--seconds"), QStringLiteral("1801"), file} << 2 << QStringLiteral("at most 1800");
        QTest::newRow("unknown option") << QStringList{QStringLiteral("--loud"), file} << 2 << QStringLiteral("unknown option '--loud'");
        QTest::newRow("folder as file") << QStringList{m_dir.path()} << 2 << QStringLiteral("is a folder");
        QTest::newRow("missing folder") << QStringList{m_dir.filePath(QStringLiteral("none/x.wav"))} << 1 << QStringLiteral("does not exist");
    }

    void options()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);

        const Run run = runDictora(arguments);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2((exitCode == 0 ? run.out : run.err).contains(message), qPrintable(run.out + run.err));
        QVERIFY(!QFileInfo::exists(m_dir.filePath(QStringLiteral("x.wav"))));
    }

    void recordsWhatIsPlayed()
    {
        // A pipe microphone fed in real time: a 440 Hz tone at half scale, so
        // whatever the recording catches is loud.
        const pulse::PipeMicrophone mic = pulse::createPipeMicrophone(QStringLiteral("pipemic"), m_dir.filePath(QStringLiteral("fifo")), 48000, 1);
        const auto cleanup = pulse::restoredAfter(mic);
        QVERIFY(mic.ok());
        QFile fifo(mic.fifo);
        QVERIFY(fifo.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
        qint64 written = 0;
        QTimer feeder;
        QObject::connect(&feeder, &QTimer::timeout, [&] {
            QByteArray chunk(480 * 4, Qt::Uninitialized);
            auto *frames = reinterpret_cast<float *>(chunk.data());
            for (int i = 0; i < 480; ++i, ++written)
                frames[i] = float(0.5 * std::sin(2 * M_PI * 440.0 * double(written) / 48000.0));
            fifo.write(chunk);
        });
        feeder.start(10);

        const QString file = m_dir.filePath(QStringLiteral("recorded.wav"));
        QProcess process;
        process.start(QStringLiteral(DICTORA_BINARY), {QStringLiteral("record"), QStringLiteral("--seconds"), QStringLiteral("1.5"), file});
        QVERIFY(QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 60000));
        feeder.stop();
        QCOMPARE(process.exitCode(), 0);
        const QString out = QString::fromUtf8(process.readAllStandardOutput());

        int rate = 0;
        const std::vector<float> samples = dictora::readMonoSamples(file, &rate);
        QCOMPARE(rate, 16000);
        QVERIFY2(!samples.empty(), qPrintable(out));

        // The printed RMS is the file's, and it is the tone's.
        const QRegularExpressionMatch rms = QRegularExpression(QStringLiteral("^rms ([0-9.]+)$"), QRegularExpression::MultilineOption).match(out);
        QVERIFY2(rms.hasMatch(), qPrintable(out));
        double sum = 0;
        for (float v : samples)
            sum += double(v) * v;
        QVERIFY(std::abs(std::sqrt(sum / double(samples.size())) - rms.captured(1).toDouble()) < 1e-5);
        QVERIFY(out.contains(QStringLiteral("samples %1\n").arg(samples.size())));
        QVERIFY2(std::abs(rms.captured(1).toDouble() - 0.5 / std::sqrt(2.0)) < 0.02, qPrintable(out));

        // A steady -9 dBFS tone: every quarter of every meter line shows the same level.
        const QStringList levels = out.split(u'\n').filter(QRegularExpression(QStringLiteral("^levels( [0-9.]+){4}$")));
        QVERIFY2(!levels.isEmpty(), qPrintable(out));
        for (const QString &line : levels)
            for (const QString &level : line.split(u' ').mid(1))
                QVERIFY2(std::abs(level.toFloat() - 0.955f) < 0.03f, qPrintable(line));
    }

    void noMicrophone()
    {
        auto cleanup = qScopeGuard([] { pulse::restoreDefaultMicrophone(); });
        QVERIFY(pulse::removeEveryMicrophone());
        const QString file = m_dir.filePath(QStringLiteral("none.wav"));
        const Run run = runDictora({QStringLiteral("--seconds"), QStringLiteral("1"), file});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QLatin1String("no microphone: the sound server has no default input source")), qPrintable(run.err));
        QVERIFY(!QFileInfo::exists(file));

        // Without a server at all.
        const QByteArray server = qgetenv("PULSE_SERVER");
        auto restoreServer = qScopeGuard([&] { qputenv("PULSE_SERVER", server); });
        qputenv("PULSE_SERVER", "unix:" + m_dir.filePath(QStringLiteral("no-socket")).toUtf8());
        const Run noServer = runDictora({file});
        QCOMPARE(noServer.exitCode, 1);
        QVERIFY2(noServer.err.contains(QLatin1String("no microphone: the sound server could not be reached")), qPrintable(noServer.err));
    }
};

DICTORA_PULSE_TEST_MAIN(RecordVerbTest)

#include "tst_recordverb.moc"
