#include "audio/WavFile.h"

#include <sndfile.h>

#include <memory>

namespace dictora {

namespace {
struct SndfileCloser {
    void operator()(SNDFILE *file) const { sf_close(file); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;
}

QString writeMonoFloatWav(const QString &path, const std::vector<float> &samples, int sampleRate)
{
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SndfilePtr file(sf_open(path.toLocal8Bit().constData(), SFM_WRITE, &info));
    if (!file)
        return QString::fromLocal8Bit(sf_strerror(nullptr));
    const sf_count_t written = sf_write_float(file.get(), samples.data(), sf_count_t(samples.size()));
    if (written != sf_count_t(samples.size()))
        return QString::fromLocal8Bit(sf_strerror(file.get()));
    sf_write_sync(file.get());
    return {};
}

std::vector<float> readMonoSamples(const QString &path, int *sampleRate, QString *error)
{
    SF_INFO info{};
    SndfilePtr file(sf_open(path.toLocal8Bit().constData(), SFM_READ, &info));
    if (!file || info.channels <= 0) {
        if (error)
            *error = QString::fromLocal8Bit(sf_strerror(file.get()));
        return {};
    }
    std::vector<float> interleaved(size_t(info.frames) * size_t(info.channels));
    const sf_count_t frames = sf_readf_float(file.get(), interleaved.data(), info.frames);
    std::vector<float> mono(size_t(std::max<sf_count_t>(frames, 0)));
    for (size_t f = 0; f < mono.size(); ++f) {
        float sum = 0;
        for (int c = 0; c < info.channels; ++c)
            sum += interleaved[f * size_t(info.channels) + size_t(c)];
        mono[f] = sum / float(info.channels);
    }
    if (sampleRate)
        *sampleRate = info.samplerate;
    return mono;
}

} // namespace dictora
