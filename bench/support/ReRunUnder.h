#pragma once

#include <cstdio>
#include <unistd.h>
#include <vector>

namespace dictora::bench {

// Runs this benchmark again under `wrapper` (which starts the rig it needs
// and then the given command); returns only when that fails.
inline int reRunUnder(const char *wrapper, int argc, char **argv)
{
    std::vector<char *> args{const_cast<char *>(wrapper)};
    for (int i = 0; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    ::execv(wrapper, args.data());
    std::fprintf(stderr, "%s: cannot run %s\n", argc > 0 ? argv[0] : "bench", wrapper);
    return 1;
}

} // namespace dictora::bench
