#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the program, in every kind of build, unless the condition holds.
#define REQUIRE(condition)                                                               \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                \
        }                                                                                \
    } while (false)
