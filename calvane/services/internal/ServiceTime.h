#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "drenn/api/DrennApiRecordingDataAccessTargetImplBase.h"

namespace quarn::calvane {

/// Times as clients write them, and back. A special time gets the low parts of its raw microseconds.
boost::posix_time::ptime timeFromService(const drenn::api::ServiceTime& time);
drenn::api::ServiceTime serviceFromTime(const boost::posix_time::ptime& time);

} // namespace quarn::calvane
