#pragma once

#include <gtest/gtest.h>

/// Whether this build runs under an emulator.
inline constexpr bool kEmulated = sizeof CALVANE_EMULATOR > 1;

/// For what an emulator does not do the way a kernel does.
#define SKIP_WHEN_EMULATED(reason)                       \
    if (kEmulated) {                                     \
        GTEST_SKIP() << "under emulation, " << (reason); \
    }                                                    \
    static_assert(true, "")
