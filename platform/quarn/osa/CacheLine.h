#pragma once

namespace quarn::osa {

/// Bytes of one line of the CPU's data cache. Memory that a device or another core touches starts on a line
/// of its own.
inline constexpr unsigned int kCacheLineBytes = 64;

/// `bytes` rounded up to whole cache lines.
constexpr unsigned long long RoundUpToCacheLine(unsigned long long bytes) {
    return (bytes + kCacheLineBytes - 1) / kCacheLineBytes * kCacheLineBytes;
}

} // namespace quarn::osa
