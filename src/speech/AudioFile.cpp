#include "speech/AudioFile.h"

#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

namespace dictora::AudioFile {

namespace {

struct SndFileCloser {
    void operator()(SNDFILE *file) const { sf_close(file); }
};

// libsndfile quietly reads a WAV's data chunk only as far as the file goes;
// the header's own figure tells whether the file was cut short or lies.
std::optional<QString> wavShortfall(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray head = file.read(4096);
    if (head.size() < 12 || !head.startsWith("RIFF") || head.mid(8, 4) != "WAVE")
        return std::nullopt;
    qsizetype pos = 12;
    while (pos + 8 <= head.size()) {
        const quint32 size = qFromLittleEndian<quint32>(head.constData() + pos + 4);
        if (head.mid(pos, 4) == "data") {
            const qint64 available = file.size() - (pos + 8);
            if (qint64(size) <= available)
                return std::nullopt;
            return QStringLiteral("%1 ends before the length its header gives (%2 of %3 bytes of audio); transcribing what is there")
                .arg(path)
                .arg(available)
                .arg(size);
        }
        pos += 8 + qsizetype(size) + (size & 1);
    }
    return std::nullopt;
}

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
    // The header's frame count can lie (a truncated file, a forged length):
    // never reserve more than the file's bytes could hold.
    const qint64 fileBytes = QFileInfo(path).size();
    if (info.frames > 0 && info.frames != SF_COUNT_MAX)
        mono.reserve(qsizetype(std::min<qint64>(info.frames, fileBytes)));
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
    DecodedAudio audio;
    if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
        const QString reason = QString::fromUtf8(sf_strerror(file.get()));
        if (mono.isEmpty())
            throw AudioFileError(QStringLiteral("%1 could not be decoded: %2").arg(path, reason));
        // A damaged tail (a recording cut short) still leaves its beginning.
        audio.shortfall = QStringLiteral("%1 is damaged after %2 s (%3); transcribing what is there")
                              .arg(path)
                              .arg(QString::number(double(mono.size()) / info.samplerate, 'f', 1), reason);
    } else if (info.frames == SF_COUNT_MAX && mono.isEmpty()) {
        // A stream of unknown length that yields nothing: typically cut short.
        throw AudioFileError(QStringLiteral("%1 holds no audio that could be decoded (is it cut short?)").arg(path));
    } else if ((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV) {
        audio.shortfall = wavShortfall(path).value_or(QString());
    }
    if (audio.shortfall.isEmpty() && info.frames > 0 && info.frames != SF_COUNT_MAX && qint64(mono.size()) < qint64(info.frames))
        audio.shortfall = QStringLiteral("%1 ends before the length its header gives (%2 of %3 frames); transcribing what is there")
                              .arg(path)
                              .arg(mono.size())
                              .arg(qint64(info.frames));
    audio.sourceSampleRate = info.samplerate;
    audio.sourceChannels = channels;
    audio.samples = resampleMono(mono, info.samplerate, kTargetSampleRate);
    return audio;
}

} // namespace dictora::AudioFile
