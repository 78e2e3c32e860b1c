#pragma once

#include "core/Error.h"

namespace dictora {

// The capture's own failures, in their fixed order.
class DictoraAudioCaptureError : public Error {
public:
    enum Case { invalidInputFormat, audioConverterUnavailable };

    explicit DictoraAudioCaptureError(Case c) : Error(descriptionFor(c)), m_case(c) {}
    Case errorCase() const { return m_case; }

    static QString descriptionFor(Case c)
    {
        switch (c) {
        case invalidInputFormat:
            return QStringLiteral("The selected microphone did not provide a usable audio format.");
        case audioConverterUnavailable:
            return QStringLiteral("The microphone audio converter could not be created.");
        }
        return {};
    }

private:
    Case m_case;
};

// The sound server's own failures (cannot connect, stream refused), passed
// to the caller unchanged.
class AudioEngineError : public Error {
public:
    using Error::Error;
};

} // namespace dictora
