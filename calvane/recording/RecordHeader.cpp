#include "calvane/recording/RecordHeader.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <cstring>
#include <stdexcept>
#include <string>

namespace quarn::calvane {

using boost::posix_time::ptime;

std::int64_t ticksFromTime(const ptime& time) {
    constexpr std::int64_t kTicksOf2020 = 212444640000000000;
    static const ptime start(boost::gregorian::date(2020, 1, 1));
    const boost::posix_time::time_duration since = time - start;
    return since.is_special() ? since.ticks() : kTicksOf2020 + since.ticks();
}

ptime timeFromTicks(std::int64_t ticks) {
    return ptime(ptime::time_rep_type(ticks));
}

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

RecordHeader parseHeader(const unsigned char* bytes, std::size_t size) {
    RecordHeader header;
    if (size != sizeof(header)) {
        throw std::runtime_error("Parse error in recorded data");
    }
    std::memcpy(&header, bytes, sizeof(header));
    return header;
}

} // namespace quarn::calvane
