// The capture pipe with synthetic buffers: meter arithmetic, conversion to
// 16 kHz mono, and the capture's limits.
#include "audio/AudioCaptureTapPipe.h"
#include "audio/AudioConverter.h"
#include "audio/DictoraAudioCaptureError.h"
#include "audio/FinalAudioCapture.h"
#include "support/TestSupport.h"

#include <QtTest>

#include <cmath>
#include <numbers>

using namespace dictora;

namespace {

std::vector<float> sine(double rate, double frequency, double amplitude, qsizetype frames, double phase = 0)
{
    std::vector<float> out(static_cast<size_t>(frames));
    for (qsizetype i = 0; i < frames; ++i)
        out[size_t(i)] = float(amplitude * std::sin(2 * std::numbers::pi * frequency * double(i) / rate + phase));
    return out;
}

// `frames` frames of one value in every channel.
AudioBuffer filled(const AudioFormat &format, qsizetype frames, float value)
{
    AudioBuffer buffer(format, quint32(frames));
    std::fill_n(buffer.rawData(), frames * format.channelCount, value);
    buffer.setFrameLength(quint32(frames));
    return buffer;
}

AudioBuffer constantSlices(double rate, quint32 frames, const QList<float> &sliceValues, float tailValue)
{
    std::vector<float> data(frames, tailValue);
    const quint32 slice = frames / 4;
    for (quint32 i = 0; i < 4 * slice; ++i)
        data[i] = sliceValues.value(int(i / slice));
    return AudioBuffer::fromChannels(rate, {data});
}

std::shared_ptr<AudioCaptureTapPipe> makePipe(const AudioFormat &input, std::shared_ptr<FinalAudioCapture> capture,
                                              QList<AudioMeterLevels> *emitted, QObject *context)
{
    auto converter = AudioConverter::create(input, AudioFormat::dictationOutput());
    return std::make_shared<AudioCaptureTapPipe>(
        std::move(converter), std::move(capture),
        [emitted](AudioMeterLevels levels) { emitted->append(levels); }, context);
}

} // namespace

class AudioCapturePipeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void meterEmissions_data()
    {
        QTest::addColumn<double>("rate");
        QTest::addColumn<QList<int>>("bufferFrames");
        QTest::addColumn<bool>("interleaved");
        QTest::addColumn<QList<qint64>>("counters");   // after each buffer
        QTest::addColumn<int>("emissions");

        QTest::newRow("48k 4096-frame buffers all emit, remainder grows")
            << 48000.0 << QList<int>{4096, 4096, 4096, 4096} << false << QList<qint64>{96, 192, 288, 384} << 4;
        QTest::newRow("48k 20 ms fragments emit every fifth")
            << 48000.0 << QList<int>{960, 960, 960, 960, 960} << false << QList<qint64>{960, 1920, 2880, 3840, 800} << 1;
        QTest::newRow("44.1k interval 3675")
            << 44100.0 << QList<int>{3675, 3674, 4} << false << QList<qint64>{0, 3674, 3} << 2;
        QTest::newRow("tiny rate clamps the interval to one frame")
            << 6.0 << QList<int>{5, 4} << false << QList<qint64>{0, 0} << 2;
        QTest::newRow("interleaved reduces the counter without emitting")
            << 48000.0 << QList<int>{5000, 3500} << true << QList<qint64>{1000, 500} << 0;
        QTest::newRow("interval reached by a 3-frame buffer emits nothing")
            << 48000.0 << QList<int>{3998, 3} << false << QList<qint64>{3998, 1} << 0;
    }

    void meterEmissions()
    {
        QFETCH(double, rate);
        QFETCH(QList<int>, bufferFrames);
        QFETCH(bool, interleaved);
        QFETCH(QList<qint64>, counters);
        QFETCH(int, emissions);

        QList<AudioMeterLevels> emitted;
        auto capture = std::make_shared<FinalAudioCapture>();
        auto pipe = makePipe({rate, 1, false, true}, capture, &emitted, this);
        for (int i = 0; i < bufferFrames.size(); ++i) {
            pipe->handle(filled({rate, 1, interleaved, true}, bufferFrames[i], 0.5f));
            QCOMPARE(pipe->meterFramesSinceEmission(), counters[i]);
        }
        QVERIFY(emitted.isEmpty()); // posted, not called in place
        QCoreApplication::sendPostedEvents();
        QCOMPARE(emitted.size(), emissions);
    }

    void sliceLevels_data()
    {
        QTest::addColumn<quint32>("frames");
        QTest::addColumn<QList<float>>("sliceValues");
        QTest::addColumn<float>("tailValue");
        QTest::addColumn<bool>("emits");
        QTest::addColumn<QList<float>>("levels");

        // The meter's scale: -52 dBFS is 0, -7 dBFS is 1.
        const auto level = [](float rms) { return (20.0f * std::log10(rms) + 52.0f) / 45.0f; };
        const float minus20 = level(0.1f);
        QTest::newRow("quarters in time order")
            << 4000u << QList<float>{0.1f, 0, 1, 0.1f} << 0.0f << true << QList<float>{minus20, 0, 1, minus20};
        QTest::newRow("-52 dBFS and below give zero")
            << 4000u << QList<float>{0.0025f, 0.001f, 0.00001f, 0} << 0.0f << true
            << QList<float>{0, 0, 0, 0};
        QTest::newRow("-7 dBFS gives one") << 4000u << QList<float>{0.4467f, 0.45f, 0.3f, 0.3f} << 0.0f << true
                                            << QList<float>{1, 1, level(0.3f), level(0.3f)};
        QTest::newRow("seven frames: one-frame slices, last three ignored")
            << 7u << QList<float>{0, 0, 0, 0} << 1.0f << true << QList<float>{0, 0, 0, 0};
        QTest::newRow("three frames emit nothing") << 3u << QList<float>{} << 1.0f << false << QList<float>{};
    }

    void sliceLevels()
    {
        QFETCH(quint32, frames);
        QFETCH(QList<float>, sliceValues);
        QFETCH(float, tailValue);
        QFETCH(bool, emits);
        QFETCH(QList<float>, levels);

        // Rate 12 makes every buffer reach the one-frame interval.
        const AudioBuffer buffer = constantSlices(12.0, frames, sliceValues, tailValue);
        QList<AudioMeterLevels> emitted;
        auto pipe = makePipe({12.0, 1, false, true}, std::make_shared<FinalAudioCapture>(), &emitted, this);
        pipe->handle(buffer);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(emitted.size(), emits ? 1 : 0);
        if (!emits)
            return;
        const AudioMeterLevels got = emitted.first();
        const float values[4] = {got.first, got.second, got.third, got.fourth};
        for (int i = 0; i < 4; ++i)
            QVERIFY2(std::abs(values[i] - levels[i]) < 1e-3f, qPrintable(QStringLiteral("slice %1: %2 vs %3").arg(i).arg(values[i]).arg(levels[i])));
    }

    void conversion_data()
    {
        QTest::addColumn<double>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("bufferFrames");
        QTest::addColumn<double>("rightGain"); // second channel relative to the first
        QTest::addColumn<double>("expectedAmplitude");

        QTest::newRow("48k mono 20 ms") << 48000.0 << 1 << 960 << 0.0 << 0.5;
        QTest::newRow("44.1k stereo, silent right channel") << 44100.0 << 2 << 1024 << 0.0 << 0.25;
        QTest::newRow("16k mono passes through") << 16000.0 << 1 << 320 << 0.0 << 0.5;
        QTest::newRow("8k mono upsampled") << 8000.0 << 1 << 160 << 0.0 << 0.5;
        QTest::newRow("96k six channels, odd buffers") << 96000.0 << 6 << 1001 << 1.0 << 0.5;
        QTest::newRow("48k one-frame buffers") << 48000.0 << 1 << 1 << 0.0 << 0.5;
    }

    void conversion()
    {
        QFETCH(double, rate);
        QFETCH(int, channels);
        QFETCH(int, bufferFrames);
        QFETCH(double, rightGain);
        QFETCH(double, expectedAmplitude);

        const double seconds = 0.5;
        const qsizetype total = qsizetype(rate * seconds);
        const double frequency = 1000.0;
        const std::vector<float> tone = sine(rate, frequency, 0.5, total);

        QList<AudioMeterLevels> emitted;
        auto capture = std::make_shared<FinalAudioCapture>();
        auto pipe = makePipe({rate, channels, false, true}, capture, &emitted, this);
        for (qsizetype offset = 0; offset < total; offset += bufferFrames) {
            const qsizetype n = std::min<qsizetype>(bufferFrames, total - offset);
            const std::vector<float> slice(tone.begin() + offset, tone.begin() + offset + n);
            std::vector<std::vector<float>> data(size_t(channels), slice);
            for (size_t c = 1; c < data.size(); ++c)
                std::transform(data[c].begin(), data[c].end(), data[c].begin(), [&](float v) { return float(v * rightGain); });
            pipe->handle(AudioBuffer::fromChannels(rate, data));
        }
        pipe->finish();

        const CapturedAudioResult result = capture->result();
        const qsizetype expectedCount = qsizetype(std::llround(seconds * 16000));
        // Nothing lost at either end: the resampler's tail is flushed.
        QVERIFY2(std::abs(qsizetype(result.samples.size()) - expectedCount) <= 2,
                 qPrintable(QStringLiteral("%1 samples").arg(result.samples.size())));

        // Aligned from the first sample: compare with the ideal 16 kHz tone away
        // from the filter's edges.
        const std::vector<float> ideal = sine(16000, frequency, expectedAmplitude, expectedCount);
        const qsizetype edge = 160;
        double maxError = 0;
        for (qsizetype i = edge; i < qsizetype(result.samples.size()) - edge; ++i)
            maxError = std::max(maxError, std::abs(double(result.samples[size_t(i)]) - ideal[size_t(i)]));
        QVERIFY2(maxError < 0.01, qPrintable(QString::number(maxError)));
        // RMS of a sine is amplitude / sqrt(2); the edges barely move it.
        QVERIFY(std::abs(result.rmsLevel - expectedAmplitude / std::sqrt(2.0)) < 0.01);
        QVERIFY(!result.reachedSafetyLimit);
    }

    // A buffer in another format than the converter's (the server switched
    // devices under the stream) is dropped; the recording goes on.
    void foreignBuffersAreDropped()
    {
        QList<AudioMeterLevels> emitted;
        auto capture = std::make_shared<FinalAudioCapture>();
        auto pipe = makePipe({48000, 1, false, true}, capture, &emitted, this);
        pipe->handle(AudioBuffer::fromChannels(44100, {sine(44100, 440, 0.5, 4410)}));
        QCOMPARE(capture->sampleCount(), 0);
        pipe->handle(AudioBuffer::fromChannels(48000, {sine(48000, 440, 0.5, 4800)}));
        pipe->finish();
        QVERIFY(std::abs(capture->sampleCount() - 1600) <= 2);
    }

    void safetyLimit_data()
    {
        QTest::addColumn<qsizetype>("stored");
        QTest::addColumn<QList<int>>("buffers");
        QTest::addColumn<qsizetype>("expectedCount");
        QTest::addColumn<bool>("expectedFlag");

        const qsizetype limit = FinalAudioCapture::kSafetyLimit;
        QTest::newRow("buffer overflows the limit") << limit - 1000 << QList<int>{1600} << limit << true;
        QTest::newRow("buffer fills the limit exactly") << limit - 1000 << QList<int>{1000} << limit << false;
        QTest::newRow("an empty buffer at the limit") << limit << QList<int>{0} << limit << false;
        QTest::newRow("next non-empty buffer at the limit") << limit - 1000 << QList<int>{1000, 0, 1} << limit << true;
        QTest::newRow("far from the limit") << qsizetype(0) << QList<int>{1600, 0, 3} << qsizetype(1603) << false;
    }

    void safetyLimit()
    {
        QFETCH(qsizetype, stored);
        QFETCH(QList<int>, buffers);
        QFETCH(qsizetype, expectedCount);
        QFETCH(bool, expectedFlag);

        FinalAudioCapture capture;
        capture.append(filled(AudioFormat::dictationOutput(), stored, 0.0f));
        for (int frames : buffers)
            capture.append(filled(AudioFormat::dictationOutput(), frames, 1.0f));
        const CapturedAudioResult result = capture.result();
        QCOMPARE(qsizetype(result.samples.size()), expectedCount);
        QCOMPARE(result.reachedSafetyLimit, expectedFlag);
        // Only stored samples count toward the RMS: the ones appended are all 1.
        const qsizetype ones = expectedCount - stored;
        QVERIFY(std::abs(result.rmsLevel - float(std::sqrt(double(ones) / double(expectedCount)))) < 1e-5f);
    }

    // Reset keeps the allocation and forgets the sum of squares.
    void resetForgetsTheLevel()
    {
        FinalAudioCapture capture;
        capture.append(AudioBuffer::fromChannels(16000, {{0.3f, -0.4f}}));
        capture.append(AudioBuffer::fromChannels(16000, {{}}));
        QCOMPARE(capture.result().samples, (std::vector<float>{0.3f, -0.4f}));
        QVERIFY(std::abs(capture.result().rmsLevel - float(std::sqrt(0.125))) < 1e-6f);
        const size_t capacity = capture.capacity();
        capture.reset();
        QCOMPARE(capture.capacity(), capacity);
        QCOMPARE(capture.result().rmsLevel, 0.0f);
        capture.append(AudioBuffer::fromChannels(16000, {{0.1f}}));
        QVERIFY(std::abs(capture.result().rmsLevel - 0.1f) < 1e-6f);
    }

    // Formats the converter refuses.
    void unusableFormatsAreRefused()
    {
        QVERIFY(!AudioConverter::create({0, 1, false, true}, AudioFormat::dictationOutput()));
        QVERIFY(!AudioConverter::create({48000, 0, false, true}, AudioFormat::dictationOutput()));
        QVERIFY(!AudioConverter::create({48000, 2, false, true}, {16000, 2, false, true}));
    }
};

QTEST_GUILESS_MAIN(AudioCapturePipeTest)
#include "tst_audiocapturepipe.moc"
