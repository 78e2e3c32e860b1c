#pragma once

#include <QString>

#include <vector>

namespace dictora {

// Mono 32-bit float WAV. Returns an empty string on success, else why not.
QString writeMonoFloatWav(const QString &path, const std::vector<float> &samples, int sampleRate);
// Reads any file libsndfile knows, mixed down to mono. Empty on error.
std::vector<float> readMonoSamples(const QString &path, int *sampleRate = nullptr, QString *error = nullptr);

} // namespace dictora
