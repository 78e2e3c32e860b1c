#include "audio/FinalAudioCapture.h"

#include <algorithm>
#include <cmath>

namespace dictora {

FinalAudioCapture::FinalAudioCapture()
{
    m_samples.reserve(kReservedSamples);
}

void FinalAudioCapture::reset()
{
    QMutexLocker locker(&m_lock);
    m_samples.clear(); // keeps the allocation
    m_sumOfSquares = 0;
    m_reachedSafetyLimit = false;
}

void FinalAudioCapture::append(const AudioBuffer &buffer)
{
    const float *data = buffer.floatChannelData(0);
    const quint32 frames = buffer.frameLength();
    if (!data || frames == 0)
        return;
    QMutexLocker locker(&m_lock);
    const qsizetype count = qsizetype(m_samples.size());
    if (count >= kSafetyLimit) {
        m_reachedSafetyLimit = true;
        return;
    }
    const qsizetype room = kSafetyLimit - count;
    const qsizetype taken = std::min<qsizetype>(room, frames);
    m_samples.insert(m_samples.end(), data, data + taken);
    double sum = 0;
    for (qsizetype i = 0; i < taken; ++i)
        sum += double(data[i]) * double(data[i]);
    m_sumOfSquares += sum;
    if (room < qsizetype(frames))
        m_reachedSafetyLimit = true;
}

CapturedAudioResult FinalAudioCapture::result() const
{
    QMutexLocker locker(&m_lock);
    CapturedAudioResult result;
    result.samples = m_samples;
    if (!m_samples.empty())
        result.rmsLevel = float(std::sqrt(m_sumOfSquares / double(m_samples.size())));
    result.reachedSafetyLimit = m_reachedSafetyLimit;
    return result;
}

qsizetype FinalAudioCapture::sampleCount() const
{
    QMutexLocker locker(&m_lock);
    return qsizetype(m_samples.size());
}

size_t FinalAudioCapture::capacity() const
{
    QMutexLocker locker(&m_lock);
    return m_samples.capacity();
}

} // namespace dictora
