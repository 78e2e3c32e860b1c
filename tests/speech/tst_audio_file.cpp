#include "speech/AudioFile.h"
#include "support/TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sndfile.h>

#include <cmath>
#include <vector>

using namespace dictora;

namespace {

// Writes `seconds` of a sine at `frequency` with libsndfile; in a stereo file
// the right channel is silent.
bool writeTone(const QString &path, int format, int rate, int channels, double seconds, double frequency)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *file = sf_open(path.toLocal8Bit().constData(), SFM_WRITE, &info);
    if (!file)
        return false;
    const sf_count_t frames = sf_count_t(seconds * rate);
    std::vector<float> data(size_t(frames) * size_t(channels));
    for (sf_count_t f = 0; f < frames; ++f) {
        const float value = float(0.5 * std::sin(2 * M_PI * frequency * double(f) / rate));
        for (int c = 0; c < channels; ++c)
            data[size_t(f) * size_t(channels) + size_t(c)] = c == 1 ? 0.0f : value;
    }
    const bool ok = sf_writef_float(file, data.data(), frames) == frames;
    sf_close(file);
    return ok;
}

// Upward zero crossings per second: the tone's frequency.
double crossingsPerSecond(const QList<float> &samples)
{
    int crossings = 0;
    for (qsizetype i = 1; i < samples.size(); ++i)
        if (samples[i - 1] < 0 && samples[i] >= 0)
            ++crossings;
    return crossings / (samples.size() / 16000.0);
}

double rms(const QList<float> &samples)
{
    double sum = 0;
    for (float s : samples)
        sum += double(s) * s;
    return samples.isEmpty() ? 0 : std::sqrt(sum / samples.size());
}

} // namespace

class AudioFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void decodes_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        const struct {
            const char *name;
            int format;
            const char *suffix;
        } formats[] = {
            {"wav16", SF_FORMAT_WAV | SF_FORMAT_PCM_16, "wav"},
            {"wavfloat", SF_FORMAT_WAV | SF_FORMAT_FLOAT, "wav"},
            {"flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, "flac"},
            {"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, "ogg"},
        };
        for (const auto &f : formats)
            for (int rate : {8000, 16000, 44100, 48000})
                for (int channels : {1, 2})
                    QTest::addRow("%s %d Hz %d ch", f.name, rate, channels)
                        << f.format << QString::fromLatin1(f.suffix) << rate << channels;
    }
    void decodes()
    {
        QFETCH(int, format);
        QFETCH(QString, suffix);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("tone.") + suffix);
        QVERIFY(writeTone(path, format, rate, channels, 1.5, 440.0));

        const DecodedAudio audio = AudioFile::decodeToMono16k(path);
        QCOMPARE(audio.sourceSampleRate, rate);
        QCOMPARE(audio.sourceChannels, channels);
        QVERIFY2(std::abs(audio.samples.size() - 24000) <= 16, qPrintable(QString::number(audio.samples.size())));
        // The pitch survives the conversion, and so does the level: the
        // mix-down is an average, neither one channel nor the sum.
        const double hz = crossingsPerSecond(audio.samples);
        QVERIFY2(std::abs(hz - 440.0) < 3.0, qPrintable(QString::number(hz)));
        const double level = 0.5 / std::sqrt(2.0) / channels;
        QVERIFY2(std::abs(rms(audio.samples) - level) < 0.02 / channels, qPrintable(QString::number(rms(audio.samples))));
    }

    void rejectsWhatIsNotAudio_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("name");
        QTest::newRow("missing") << QByteArray() << QString();
        QTest::newRow("directory") << QByteArray() << QStringLiteral("folder");
        QTest::newRow("text") << QByteArray("hello, this is not audio\n").repeated(40) << QStringLiteral("notes.wav");
    }
    void rejectsWhatIsNotAudio()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, name);
        QTemporaryDir dir;
        QString path = dir.filePath(QStringLiteral("does-not-exist.wav"));
        if (name == QLatin1String("folder")) {
            path = dir.filePath(name);
            QVERIFY(QDir().mkpath(path));
        } else if (!name.isEmpty()) {
            path = dir.filePath(name);
            QVERIFY(dictora::test::writeFile(path, content));
        }
        try {
            AudioFile::decodeToMono16k(path);
            QFAIL("decoded something that is not audio");
        } catch (const AudioFileError &error) {
            QVERIFY2(error.description().contains(path), qPrintable(error.description()));
        }
    }
};

QTEST_GUILESS_MAIN(AudioFileTest)
#include "tst_audio_file.moc"
