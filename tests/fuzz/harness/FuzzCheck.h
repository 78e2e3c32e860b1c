#pragma once

#include <cstdio>
#include <cstdlib>

// A broken property is a crash to libFuzzer, which keeps the input.
#define FUZZ_CHECK(condition, what)                                        \
    do {                                                                   \
        if (!(condition)) {                                                \
            std::fprintf(stderr, "property broken: %s (%s)\n", what, #condition); \
            std::abort();                                                  \
        }                                                                  \
    } while (0)
