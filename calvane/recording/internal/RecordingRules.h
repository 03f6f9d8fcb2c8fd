#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace quarn::calvane {

/// At this time and before it the clock cannot have been set.
inline const boost::posix_time::ptime kEarliestAllowedRecording(boost::gregorian::date(2014, 1, 1));
/// Records further apart than this belong together only if the history says so.
inline const boost::posix_time::time_duration kLargestRecordGap = boost::posix_time::seconds(10);

} // namespace quarn::calvane
