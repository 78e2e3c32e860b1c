#pragma once

#include "core/Error.h"

#include <QList>
#include <QString>

namespace dictora {

class AudioFileError : public Error {
public:
    using Error::Error;
};

// A recording read from disk as the recogniser wants it.
struct DecodedAudio {
    QList<float> samples; // 16 kHz, mono, 32-bit float
    int sourceSampleRate = 0;
    int sourceChannels = 0;
    // Set when the file held less than its header promised (cut short, or a
    // forged length): what was there is decoded, and the caller says so.
    QString shortfall;

    double seconds() const { return samples.size() / 16000.0; }
};

namespace AudioFile {

constexpr int kTargetSampleRate = 16000;

// Decodes WAV, FLAC, Ogg (anything libsndfile reads), mixes the channels down
// and converts to 16 kHz with libsoxr's high quality. Throws AudioFileError
// with the reason when the file cannot be read.
DecodedAudio decodeToMono16k(const QString &path);

// High-quality rate conversion of mono float samples.
QList<float> resampleMono(const QList<float> &input, double inputRate, double outputRate);

} // namespace AudioFile

} // namespace dictora
