#pragma once

#include <QMetaType>

namespace dictora {

// Four indicator bar levels, each 0…1.
struct AudioMeterLevels {
    float first = 0;
    float second = 0;
    float third = 0;
    float fourth = 0;

    static AudioMeterLevels zero() { return {}; }
    float maximum() const;
    friend bool operator==(const AudioMeterLevels &, const AudioMeterLevels &) = default;
};

inline float AudioMeterLevels::maximum() const
{
    float m = first;
    for (float v : {second, third, fourth})
        m = v > m ? v : m;
    return m;
}

} // namespace dictora

Q_DECLARE_METATYPE(dictora::AudioMeterLevels)
