#pragma once

#include "app/ProductionPorts.h"

namespace dictora::cli {

// Everything main() does: a verb, or the application with the given recogniser.
int dictoraMain(int argc, char **argv, const SpeechPortFactory &speechFactory);

} // namespace dictora::cli
