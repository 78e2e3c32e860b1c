#pragma once

#include "app/ProductionPorts.h"

namespace dictora {

// Runs the tray application until it is told to quit. A second start hands
// its request to the running instance instead. The factory decides where the
// recognised words come from (the model, or a script in dictora-scripted).
int runApplication(int argc, char **argv, const SpeechPortFactory &speechFactory);

} // namespace dictora
