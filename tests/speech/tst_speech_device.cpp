// Which device recognition runs on: the choice over the library's device
// list, the environment override, and the real library on this machine
// (Mesa's software Vulkan driver at most), which must settle on the CPU.
#include "speech/AccurateSpeechEngine.h"
#include "speech/SpeechDevice.h"
#include "support/TestSupport.h"

#include <QtTest>

#include <mutex>

using namespace dictora;

Q_DECLARE_METATYPE(QList<dictora::ComputeDevice>)
Q_DECLARE_METATYPE(dictora::SpeechDevicePreference)

namespace {

using Kind = ComputeDevice::Kind;

ComputeDevice device(Kind kind, const char *name, const char *description)
{
    return ComputeDevice{kind, QLatin1String(name), QLatin1String(description)};
}

const ComputeDevice kCpu = device(Kind::cpu, "CPU", "AMD EPYC 7763 64-Core Processor");
const ComputeDevice kLlvmpipe = device(Kind::gpu, "Vulkan0", "llvmpipe (LLVM 15.0.6, 256 bits)");
const ComputeDevice kLavapipe = device(Kind::integratedGpu, "Vulkan0", "Lavapipe software rasteriser");
const ComputeDevice kH100 = device(Kind::gpu, "Vulkan1", "NVIDIA H100 80GB HBM3");
const ComputeDevice kIntel = device(Kind::integratedGpu, "Vulkan0", "Intel(R) Iris(R) Xe Graphics");
const ComputeDevice kRadeon = device(Kind::gpu, "Vulkan1", "AMD Radeon RX 7600");

// Collects what the engine logs, from its own thread.
struct LogLines {
    std::mutex mutex;
    QStringList lines;
    AccurateSpeechEngine::LogSink sink()
    {
        return [this](const QString &line) {
            std::lock_guard lock(mutex);
            lines.append(line);
        };
    }
    QStringList matching(const QString &prefix)
    {
        std::lock_guard lock(mutex);
        return lines.filter(prefix);
    }
};

} // namespace

class SpeechDeviceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The device for the setting ("auto", "cpu", "gpu", "gpu:N", "software")
    // over the library's device list.
    void choice_data()
    {
        QTest::addColumn<QList<ComputeDevice>>("devices");
        QTest::addColumn<QString>("setting");
        QTest::addColumn<bool>("useGpu");
        QTest::addColumn<int>("gpuIndex");
        QTest::addColumn<QString>("name");

        QTest::newRow("no devices at all") << QList<ComputeDevice>{} << "auto" << false << 0 << "cpu";
        QTest::newRow("llvmpipe is not a gpu") << QList{kCpu, kLlvmpipe} << "auto" << false << 0 << "cpu";
        QTest::newRow("lavapipe is not a gpu") << QList{kCpu, kLavapipe} << "auto" << false << 0 << "cpu";
        QTest::newRow("lavapipe asked for, after a gpu")
            << QList{kCpu, kH100, kLavapipe} << "software" << true << 1 << "Lavapipe software rasteriser";
        QTest::newRow("lavapipe asked for, none there") << QList{kCpu, kH100} << "lavapipe" << false << 0 << "cpu";
        QTest::newRow("discrete gpu") << QList{kCpu, kH100} << "auto" << true << 0 << "NVIDIA H100 80GB HBM3";
        // The library counts every GPU, software ones included, when it numbers them.
        QTest::newRow("gpu after a software one")
            << QList{kCpu, kLlvmpipe, kH100} << "automatic" << true << 1 << "NVIDIA H100 80GB HBM3";
        QTest::newRow("integrated only") << QList{kCpu, kIntel} << "auto" << true << 0 << "Intel(R) Iris(R) Xe Graphics";
        QTest::newRow("discrete wins over integrated") << QList{kCpu, kIntel, kRadeon} << "gpu" << true << 1 << "AMD Radeon RX 7600";
        QTest::newRow("integrated chosen over discrete") << QList{kCpu, kIntel, kRadeon} << "gpu:0" << true << 0
                                                         << "Intel(R) Iris(R) Xe Graphics";
        QTest::newRow("discrete chosen") << QList{kCpu, kIntel, kRadeon} << " GPU:1" << true << 1 << "AMD Radeon RX 7600";
        QTest::newRow("a software one is never taken")
            << QList{kCpu, kLlvmpipe, kH100} << "gpu:0" << true << 1 << "NVIDIA H100 80GB HBM3";
        QTest::newRow("a number that is gone takes the best") << QList{kCpu, kIntel, kRadeon} << "gpu:7" << true << 1
                                                              << "AMD Radeon RX 7600";
        QTest::newRow("cpu forced over a gpu") << QList{kCpu, kH100} << "CPU" << false << 0 << "cpu";
        QTest::newRow("gpu asked for, none there") << QList{kCpu, kLlvmpipe} << "gpu" << false << 0 << "cpu";
        QTest::newRow("accelerators are not gpus")
            << QList{kCpu, device(Kind::accelerator, "BLAS", "OpenBLAS")} << "auto" << false << 0 << "cpu";
    }
    void choice()
    {
        QFETCH(QList<ComputeDevice>, devices);
        QFETCH(QString, setting);
        QFETCH(bool, useGpu);
        QFETCH(int, gpuIndex);
        QFETCH(QString, name);
        const std::optional<SpeechDevicePreference> preference = speechDevicePreferenceFromString(setting);
        QVERIFY(preference);
        const SpeechDeviceChoice choice = chooseSpeechDevice(devices, *preference, speechDeviceGpuIndex(setting));
        QCOMPARE(choice.useGpu, useGpu);
        QCOMPARE(choice.gpuIndex, gpuIndex);
        QCOMPARE(choice.name, name);
        QCOMPARE(choice.reason.isEmpty(), useGpu); // the CPU always says why
    }

    // What the Settings sheet offers: real GPUs by their number, never a software one.
    void offeredGpus()
    {
        const auto offered = [](const QList<ComputeDevice> &devices) {
            QStringList listed;
            for (const auto &[value, name] : usableGpus(devices))
                listed << value + u' ' + name;
            return listed;
        };
        QCOMPARE(offered({kCpu, kIntel, kRadeon}),
            (QStringList{"gpu:0 Intel(R) Iris(R) Xe Graphics", "gpu:1 AMD Radeon RX 7600"}));
        QCOMPARE(offered({kCpu, kLlvmpipe, kH100}), QStringList{"gpu:1 NVIDIA H100 80GB HBM3"});
    }

    void environmentOverride_data()
    {
        QTest::addColumn<QByteArray>("environment");
        QTest::addColumn<SpeechDevicePreference>("configured");
        QTest::addColumn<SpeechDevicePreference>("effective");
        QTest::newRow("unset keeps the setting") << QByteArray() << SpeechDevicePreference::cpu << SpeechDevicePreference::cpu;
        QTest::newRow("cpu pins the cpu") << QByteArray("cpu") << SpeechDevicePreference::automatic << SpeechDevicePreference::cpu;
        QTest::newRow("auto lifts a pinned cpu") << QByteArray("auto") << SpeechDevicePreference::cpu << SpeechDevicePreference::automatic;
        QTest::newRow("nonsense is ignored") << QByteArray("tpu") << SpeechDevicePreference::cpu << SpeechDevicePreference::cpu;
    }
    void environmentOverride()
    {
        QFETCH(QByteArray, environment);
        QFETCH(SpeechDevicePreference, configured);
        QFETCH(SpeechDevicePreference, effective);
        const QByteArray saved = qgetenv("DICTORA_SPEECH_DEVICE");
        if (environment.isNull())
            qunsetenv("DICTORA_SPEECH_DEVICE");
        else
            qputenv("DICTORA_SPEECH_DEVICE", environment);
        const SpeechDevicePreference result = speechDevicePreferenceFromEnvironment(configured);
        qputenv("DICTORA_SPEECH_DEVICE", saved);
        QCOMPARE(result, effective);
    }

    // The library as built here, on this machine: whatever Vulkan finds (at
    // most Mesa's software driver) must leave recognition on the CPU.
    void realLibraryFallsBackToCpu()
    {
        const QList<ComputeDevice> devices = availableComputeDevices();
        QVERIFY(std::any_of(devices.begin(), devices.end(), [](const ComputeDevice &d) { return d.kind == Kind::cpu; }));
        for (const ComputeDevice &d : devices)
            qInfo("device %s: %s", qPrintable(d.name), qPrintable(d.description));
        const bool realGpu = std::any_of(devices.begin(), devices.end(), [](const ComputeDevice &d) {
            return (d.kind == Kind::gpu || d.kind == Kind::integratedGpu) && !isSoftwareRasteriser(d);
        });
        if (realGpu)
            QSKIP("this machine has a real GPU");
        QCOMPARE(chooseSpeechDevice(devices, SpeechDevicePreference::automatic).useGpu, false);
    }

    // The whole GPU path (choice, load, warm-up, recognition) through the real
    // Vulkan back-end: on Mesa's software driver when asked for by name, and on
    // a real GPU, which the automatic choice takes, where the machine has one.
    void vulkanRunsTheGpuPath_data()
    {
        QTest::addColumn<SpeechDevicePreference>("preference");
        QTest::addColumn<bool>("software");
        QTest::addColumn<QString>("model");
        QTest::newRow("software driver") << SpeechDevicePreference::software << true << "for-tests-ggml-tiny.en.bin";
        QTest::newRow("real gpu, automatic") << SpeechDevicePreference::automatic << false << "for-tests-ggml-tiny.en.bin";
        QTest::newRow("real gpu, product's shape")
            << SpeechDevicePreference::gpu << false << "for-tests-ggml-large-v3-turbo-q5_0.bin";
    }
    void vulkanRunsTheGpuPath()
    {
        QFETCH(SpeechDevicePreference, preference);
        QFETCH(bool, software);
        QFETCH(QString, model);
        const QList<ComputeDevice> devices = availableComputeDevices();
        const bool listed = std::any_of(devices.begin(), devices.end(), [software](const ComputeDevice &d) {
            return (d.kind == Kind::gpu || d.kind == Kind::integratedGpu) && isSoftwareRasteriser(d) == software;
        });
        // ggml's Vulkan back-end leaves CPU-type devices out of its own list
        // even with lavapipe installed, so the software row cannot run here yet.
        if (!listed)
            QSKIP(software ? "ggml's Vulkan back-end lists no software device" : "no real GPU on this machine");
        for (const auto &[value, name] : usableGpus(devices))
            qInfo("usable %s: %s", qPrintable(value), qPrintable(name));
        LogLines log;
        AccurateSpeechEngine engine(preference, log.sink());
        engine.load(test::sharedTestData() + QStringLiteral("/models/") + model).waitForFinished();
        const QString logged = log.matching(QStringLiteral("speech engine")).join(u'\n');
        qInfo("%s", qPrintable(logged));
        QVERIFY2(engine.usesGpu(), qPrintable(logged));
        QCOMPARE(isSoftwareRasteriser({Kind::gpu, QString(), engine.deviceName()}), software);
        QVERIFY(!logged.contains(QLatin1String("falling back")));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(engine.transcribe(QList<float>(16000, 0.0f), 16000).result().text, QString());
        qInfo("1 s of silence recognised on %s in %lld ms", qPrintable(engine.deviceName()), timer.elapsed());
        QVERIFY(engine.usesGpu());

        // Switched in Settings, without a restart: the model loads again on
        // the CPU, then back on the GPU, in the same process.
        const QString gpu = engine.deviceName();
        engine.setDevicePreference(SpeechDevicePreference::cpu, -1);
        engine.load(test::sharedTestData() + QStringLiteral("/models/") + model).waitForFinished();
        QCOMPARE(engine.deviceName(), QStringLiteral("cpu"));
        QCOMPARE(engine.transcribe(QList<float>(16000, 0.0f), 16000).result().text, QString());
        engine.setDevicePreference(preference, -1);
        timer.restart();
        engine.load(test::sharedTestData() + QStringLiteral("/models/") + model).waitForFinished();
        qInfo("switched back to %s in %lld ms", qPrintable(engine.deviceName()), timer.elapsed());
        QCOMPARE(engine.deviceName(), gpu);
        QCOMPARE(engine.transcribe(QList<float>(16000, 0.0f), 16000).result().text, QString());
    }

    // A device whose buffers cannot hold the model (CTest caps lavapipe's with
    // GGML_VK_FORCE_MAX_BUFFER_SIZE in a process of its own): the load fails
    // on the GPU, the engine says so and recognises on the CPU.
    void vulkanErrorFallsBackToCpu()
    {
        if (!qEnvironmentVariableIsSet("GGML_VK_FORCE_MAX_BUFFER_SIZE"))
            QSKIP("runs with the device's buffers capped (tst_speech_device_vulkan_fallback)");
        const QList<ComputeDevice> devices = availableComputeDevices();
        if (!std::any_of(devices.begin(), devices.end(), isSoftwareRasteriser))
            QSKIP("ggml's Vulkan back-end lists no software device");
        LogLines log;
        AccurateSpeechEngine engine(SpeechDevicePreference::software, log.sink());
        engine.load(test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.en.bin")).waitForFinished();
        const QStringList fellBack = log.matching(QStringLiteral("speech engine gpu unusable, falling back to cpu"));
        QVERIFY2(fellBack.size() == 1, qPrintable(log.matching(QStringLiteral("speech engine")).join(u'\n')));
        QVERIFY(fellBack.first().contains(QLatin1String("load failed on llvmpipe")));
        QVERIFY(!engine.usesGpu());
        QCOMPARE(engine.deviceName(), QStringLiteral("cpu"));
        QCOMPARE(engine.transcribe(QList<float>(16000, 0.0f), 16000).result().text, QString());
    }

    // Loads through the real library: the device is logged once per engine
    // (a reload on the same device is silent) and the forced CPU holds. The
    // automatic row settles where this machine's choice does (a GPU if it has one).
    void engineLogsItsDeviceOnce_data()
    {
        QTest::addColumn<SpeechDevicePreference>("preference");
        QTest::addColumn<QList<ComputeDevice>>("devices");
        QTest::addColumn<bool>("askedForGpu");
        QTest::newRow("automatic, this machine") << SpeechDevicePreference::automatic << QList<ComputeDevice>() << false;
        QTest::newRow("cpu forced over a listed gpu") << SpeechDevicePreference::cpu << QList{kCpu, kH100} << false;
        QTest::newRow("gpu asked for, none usable") << SpeechDevicePreference::gpu << QList{kCpu, kLlvmpipe} << true;
    }
    void engineLogsItsDeviceOnce()
    {
        QFETCH(SpeechDevicePreference, preference);
        QFETCH(QList<ComputeDevice>, devices);
        QFETCH(bool, askedForGpu);
        LogLines log;
        AccurateSpeechEngine::DeviceLister lister = availableComputeDevices;
        if (!devices.isEmpty())
            lister = [devices] { return devices; };
        const SpeechDeviceChoice expected = chooseSpeechDevice(lister(), preference);
        const QString device = expected.useGpu ? expected.name : QStringLiteral("cpu");
        {
            AccurateSpeechEngine engine(preference, log.sink(), lister);
            const QString model = test::sharedTestData() + QStringLiteral("/models/for-tests-ggml-tiny.en.bin");
            engine.load(model).waitForFinished();
            engine.load(model).waitForFinished();
            QCOMPARE(engine.deviceName(), device);
            QCOMPARE(engine.usesGpu(), expected.useGpu);
            const AccurateSpeechResult result = engine.transcribe(QList<float>(16000, 0.0f), 16000).result();
            QCOMPARE(result.text, QString());
        }
        QCOMPARE(log.matching(QStringLiteral("speech engine device=")), QStringList{QStringLiteral("speech engine device=") + device});
        QCOMPARE(log.matching(QStringLiteral("speech engine gpu requested but unavailable")).size(), askedForGpu ? 2 : 0);
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(SpeechDeviceTest)

#include "tst_speech_device.moc"
