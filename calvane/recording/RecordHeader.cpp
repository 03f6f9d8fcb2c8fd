#include "calvane/recording/RecordHeader.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <cstring>
#include <stdexcept>

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

RecordHeader parseHeader(const unsigned char* bytes, std::size_t size) {
    RecordHeader header;
    if (size != sizeof(header)) {
        throw std::runtime_error("Parse error in recorded data");
    }
    std::memcpy(&header, bytes, sizeof(header));
    return header;
}

} // namespace quarn::calvane
