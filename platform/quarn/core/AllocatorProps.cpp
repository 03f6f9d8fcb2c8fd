#include "quarn/core/AllocatorProps.h"

namespace quarn::core {

AllocatorProps::AllocatorProps(int bits) : bits_(bits) {}

bool AllocatorProps::Supports(int props) const {
    return (bits_ & props) == props;
}

int AllocatorProps::GetBits() const {
    return bits_;
}

} // namespace quarn::core
