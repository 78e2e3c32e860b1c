#include "support/TestSupport.h"

#include <whisper.h>
#include <sndfile.h>

#include <QtTest>

#include <memory>
#include <thread>
#include <vector>

// The library itself, below our engine: a model file loads and whisper_full
// runs over real speech. The test model has no weights, so no text is expected.
class WhisperLibraryTest : public QObject {
    Q_OBJECT

    static std::vector<float> readMono16k(const QString &path)
    {
        SF_INFO info{};
        std::unique_ptr<SNDFILE, int (*)(SNDFILE *)> file(sf_open(QFile::encodeName(path).constData(), SFM_READ, &info), sf_close);
        if (!file || info.samplerate != 16000 || info.channels != 1)
            return {};
        std::vector<float> samples(size_t(info.frames));
        samples.resize(size_t(sf_readf_float(file.get(), samples.data(), info.frames)));
        return samples;
    }

private Q_SLOTS:
    void loadsAndRuns()
    {
        const QString data = dictora::test::sharedTestData();
        const QString model = data + QStringLiteral("/models/for-tests-ggml-tiny.en.bin");
        const std::vector<float> samples = readMono16k(data + QStringLiteral("/speech/jfk.wav"));
        QCOMPARE(samples.size(), size_t(176000)); // 11 s at 16 kHz

        whisper_context_params cparams = whisper_context_default_params();
        cparams.use_gpu = false;
        std::unique_ptr<whisper_context, void (*)(whisper_context *)> ctx(
            whisper_init_from_file_with_params(QFile::encodeName(model).constData(), cparams), whisper_free);
        QVERIFY(ctx);

        whisper_full_params params = whisper_full_default_params(WHISPER_SAMPLING_GREEDY);
        params.n_threads = int(std::max(1u, std::min(4u, std::thread::hardware_concurrency())));
        params.print_progress = false;
        params.print_realtime = false;
        params.print_timestamps = false;
        params.language = "en";
        QCOMPARE(whisper_full(ctx.get(), params, samples.data(), int(samples.size())), 0);
        QVERIFY(whisper_full_n_segments(ctx.get()) >= 0);
    }

    void rejectsForeignFile()
    {
        // A speech recording is not a model: the library must refuse it, not crash.
        const QString wav = dictora::test::sharedTestData() + QStringLiteral("/speech/jfk.wav");
        whisper_context_params cparams = whisper_context_default_params();
        cparams.use_gpu = false;
        whisper_context *ctx = whisper_init_from_file_with_params(QFile::encodeName(wav).constData(), cparams);
        QVERIFY(ctx == nullptr);
    }
};

DICTORA_TEST_MAIN_WITH_TESTDATA(WhisperLibraryTest)
#include "tst_whisper_library.moc"
