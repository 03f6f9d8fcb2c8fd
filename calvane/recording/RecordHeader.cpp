#include "calvane/recording/RecordHeader.h"

#include <stdexcept>
#include <string>

namespace quarn::calvane {

void RecordHeader::setCompositionOffset(std::int64_t microseconds) {
    constexpr std::int64_t kLimit = std::int64_t{1} << 47;
    if (microseconds < -kLimit || microseconds >= kLimit) {
        throw std::invalid_argument("A composition offset of " + std::to_string(microseconds) +
                                    " us does not fit into a record's header");
    }
    auto rest = static_cast<std::uint64_t>(microseconds);
    for (std::uint8_t& byte : offset) {
        byte = static_cast<std::uint8_t>(rest);
        rest >>= 8;
    }
}

std::int64_t RecordHeader::compositionOffset() const {
    std::uint64_t value = 0;
    for (std::size_t i = sizeof(offset); i-- != 0;) {
        value = value << 8 | offset[i];
    }
    constexpr std::uint64_t kSign = std::uint64_t{1} << 47;
    return static_cast<std::int64_t>((value ^ kSign) - kSign);
}

} // namespace quarn::calvane
