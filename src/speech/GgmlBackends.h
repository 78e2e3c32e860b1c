#pragma once

#include <QString>

namespace dictora {

// In the portable build ggml's CPU code (and any GPU back-end) are modules
// loaded at run time; this loads the best of each once per process, from
// beside the executable or from the package's private library folder.
// Returns the folder they were loaded from; empty for a native build, where
// every back-end is linked in.
QString loadGgmlBackends();

} // namespace dictora
