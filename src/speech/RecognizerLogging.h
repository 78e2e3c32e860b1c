#pragma once

namespace dictora {

// whisper.cpp reports model details and timings on standard error. The
// command line keeps them out of the way unless asked for.
void setRecognizerLibraryLogging(bool enabled);

} // namespace dictora
