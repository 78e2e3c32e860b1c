#pragma once

namespace dictora {

// Runs the tray application until it is told to quit. A second start hands
// its request to the running instance instead.
int runApplication(int argc, char **argv);

} // namespace dictora
