#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "TimeText.h"
#include "fleet/Nats.h"
#include "record_source/RecordSource.h"

namespace quarn::core {
class IniFile;
}

namespace calvane_uplink {

using calvane_recording::Time;
using calvane_recording::TrackKind;

/// Hours of the day in UTC, in minutes from midnight; `end` may be smaller than `begin`, over midnight.
struct Hours {
    unsigned int begin = 0;
    unsigned int end = 0;

    bool Has(Time at) const;
};

/// What of a track is copied.
struct TrackPolicy {
    bool onlyKeyFrames = false;
    std::optional<Hours> hours;
    /// Only around events of the history that tell of data of these tracks; empty: always.
    std::set<TrackKind> events;
    /// Or around messages with this topic on the device's message bus; empty: none.
    std::string topic;
    Time before = 10 * calvane_recording::kSecond;
    Time after = 10 * calvane_recording::kSecond;

    bool IsAroundEvents() const { return !events.empty() || !topic.empty(); }
};

/// How a stream is made that is not there.
struct StreamPolicy {
    bool create = true;
    int replicas = 1;
    Time retention = 0;      ///< 0: no limit.
    std::uint64_t bytes = 0; ///< 0: no limit.
    std::string placement;   ///< A tag of servers; empty: any.
};

/// What /etc/calvane/uplink.ini says.
///
/// Errors: quarn::osa::Exception that names file, line, group and key.
struct Policy {
    explicit Policy(const std::string& path);

    calvane_fleet::NatsOptions nats;
    std::string device;
    StreamPolicy stream;
    bool newestFirst = true;
    std::uint64_t bytesPerSecond = 0; ///< 0: as many as the link takes.
    bool history = true;
    std::map<TrackKind, TrackPolicy> tracks;

private:
    class Reader;
};

} // namespace calvane_uplink
