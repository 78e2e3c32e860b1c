#include "speech/RecognizerLogging.h"

#include <whisper.h>

#include <cstdio>

namespace dictora {

namespace {

void discard(enum ggml_log_level, const char *, void *) { }

void toStandardError(enum ggml_log_level, const char *text, void *)
{
    std::fputs(text, stderr);
}

} // namespace

void setRecognizerLibraryLogging(bool enabled)
{
    whisper_log_set(enabled ? toStandardError : discard, nullptr);
}

} // namespace dictora
