#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "calvane/config/Description.h"
#include "calvane/config/PipelineThreads.h"
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

/// What a manager keeps from one load to the next.
///
/// Threads: the one that loads pipelines.
class LoadRecord {
public:
    ConnectionTaps taps;
    /// Of all pipelines that were loaded.
    PipelineThreads threads;
    /// Settings that no plugin read, in the order in which the plugins were made.
    std::vector<DescriptionPlace> unusedSettings;
    /// Where the loader was last: after a failure, the place at fault.
    DescriptionPlace place;
    /// Details of a failure that its text does not have; may be empty.
    std::string detail;
};

} // namespace quarn::calvane
