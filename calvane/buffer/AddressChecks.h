#pragma once

#include "calvane/Export.h"

namespace quarn::calvane {

/// Returns `addr`, or throws Exception "Could not take the physical address of this buffer" when it is 0.
CALVANE_API unsigned int CheckPhysAddr(unsigned int addr);

/// Returns `p`, or throws Exception with `message` when it is null. For unsigned char, const or not.
template <typename T>
CALVANE_API T* CheckNull(T* p, const char* message);

extern template unsigned char* CheckNull(unsigned char* p, const char* message);
extern template const unsigned char* CheckNull(const unsigned char* p, const char* message);

} // namespace quarn::calvane
