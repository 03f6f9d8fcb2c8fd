#pragma once

#include <algorithm>
#include <cstdlib>

/// How many of so many rounds or cases a long test does: CALVANE_TEST_EFFORT percent, of which a build with a sanitizer
/// and one for ARM take 5 by default, since they are slow.
inline std::size_t Effort(std::size_t all) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
    constexpr std::size_t kDefault = 5;
#else
    constexpr std::size_t kDefault = 100;
#endif
    const char* const percent = std::getenv("CALVANE_TEST_EFFORT");
    return std::max<std::size_t>(1, all * (percent ? std::strtoul(percent, nullptr, 10) : kDefault) / 100);
}
