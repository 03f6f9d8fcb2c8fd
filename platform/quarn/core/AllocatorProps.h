#pragma once

#include "quarn/Export.h"

namespace quarn::core {

/// What kind of memory an allocator gives, as a set of bits. The values of the bits are part of the
/// interface.
class QUARN_API AllocatorProps {
public:
    static constexpr int kContiguous = 1;  ///< One piece of physical memory, with its address.
    static constexpr int kCached = 2;      ///< Cached by the CPU.
    static constexpr int kAddressable = 4; ///< Reachable by the CPU.

    explicit AllocatorProps(int bits);

    /// Whether all the bits of `props` are present; no bits are always present.
    bool Supports(int props) const;
    int GetBits() const;

private:
    int bits_;
};

} // namespace quarn::core
