#include "speech/AudioFile.h"

#include <QFileInfo>

#include <sndfile.h>
#include <soxr.h>

#include <memory>
#include <vector>

namespace dictora::AudioFile {

namespace {

struct SndFileCloser {
    void operator()(SNDFILE *file) const { sf_close(file); }
};

} // namespace

QList<float> resampleMono(const QList<float> &input, double inputRate, double outputRate)
{
    if (input.isEmpty() || inputRate == outputRate)
        return input;
    const size_t outputCapacity = size_t(double(input.size()) * outputRate / inputRate + 16);
    QList<float> output(qsizetype(outputCapacity), 0.0f);
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    size_t produced = 0;
    const soxr_error_t error = soxr_oneshot(inputRate, outputRate, 1, input.constData(), size_t(input.size()), nullptr,
        output.data(), outputCapacity, &produced, &io, &quality, nullptr);
    if (error)
        throw AudioFileError(QStringLiteral("The audio could not be converted to 16 kHz: %1").arg(QString::fromUtf8(error)));
    output.resize(qsizetype(produced));
    return output;
}

DecodedAudio decodeToMono16k(const QString &path)
{
    if (!QFileInfo(path).isFile())
        throw AudioFileError(QStringLiteral("%1 is not a readable file.").arg(path));
    SF_INFO info{};
    std::unique_ptr<SNDFILE, SndFileCloser> file(sf_open(path.toLocal8Bit().constData(), SFM_READ, &info));
    if (!file)
        throw AudioFileError(QStringLiteral("%1 could not be read as audio: %2").arg(path, QString::fromUtf8(sf_strerror(nullptr))));
    if (info.channels < 1 || info.samplerate < 1)
        throw AudioFileError(QStringLiteral("%1 has no audio channels.").arg(path));
    sf_command(file.get(), SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);

    QList<float> mono;
    if (info.frames > 0)
        mono.reserve(qsizetype(info.frames));
    const int channels = info.channels;
    std::vector<float> block(size_t(4096) * size_t(channels));
    for (;;) {
        const sf_count_t frames = sf_readf_float(file.get(), block.data(), 4096);
        if (frames <= 0)
            break;
        for (sf_count_t f = 0; f < frames; ++f) {
            double sum = 0;
            for (int c = 0; c < channels; ++c)
                sum += block[size_t(f) * size_t(channels) + size_t(c)];
            mono.append(float(sum / channels));
        }
    }
    if (sf_error(file.get()) != SF_ERR_NO_ERROR)
        throw AudioFileError(QStringLiteral("%1 could not be decoded: %2").arg(path, QString::fromUtf8(sf_strerror(file.get()))));

    DecodedAudio audio;
    audio.sourceSampleRate = info.samplerate;
    audio.sourceChannels = channels;
    audio.samples = resampleMono(mono, info.samplerate, kTargetSampleRate);
    return audio;
}

} // namespace dictora::AudioFile
