#pragma once

#include <map>
#include <tuple>
#include <vector>

#include "calvane/graph/IConnectionTap.h"

namespace quarn::calvane {

/// All taps of one manager, one behind the other.
///
/// Threads:   the one that loads pipelines.
/// Ownership: the taps stay the caller's.
class ConnectionTaps {
public:
    void Add(IConnectionTap* tap) { taps_.push_back(tap); }

    /// The sink to connect in place of `sink`. A connection that is made again, which happens when a shared
    /// plugin is walked again, gets the same one again: connecting that is known to change nothing.
    Sink* SinkFor(const Connection& connection, Sink* sink);

private:
    using Key = std::tuple<std::string, std::string, std::string, Sink*>;

    std::vector<IConnectionTap*> taps_;
    std::map<Key, Sink*> made_;
};

} // namespace quarn::calvane
