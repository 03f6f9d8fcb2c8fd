#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "calvane/runtime/ConnectionMeter.h"
#include "calvane/runtime/PipelineStatus.h"

namespace calvane_program {

/// Buffers and bytes that went one way.
struct Traffic {
    std::uint64_t buffers = 0;
    std::uint64_t bytes = 0;
};

/// What one plugin has done since the start.
struct PluginThroughput {
    std::string plugin;
    std::optional<Traffic> in;          ///< None for a plugin that nothing feeds.
    std::map<std::string, Traffic> out; ///< By output, the one without a name having an empty one.
    std::optional<quarn::calvane::QueueStatistics> queue;
};

/// One entry for each plugin that is connected, upstream ones first.
std::vector<PluginThroughput> SumUp(const std::vector<quarn::calvane::ConnectionCounts>& connections,
                                    const std::vector<quarn::calvane::QueueStatus>& queues);

/// A table of what the plugins did in the last `seconds` and since the start, one line for each plugin, and for each
/// named output of it, below a line of titles. `before` is what SumUp gave that long ago, or empty.
std::vector<std::string> FormatTable(const std::vector<PluginThroughput>& before,
                                     const std::vector<PluginThroughput>& now, double seconds);

/// The same as one line for each plugin that stands by itself.
std::vector<std::string> FormatLines(const std::vector<PluginThroughput>& before,
                                     const std::vector<PluginThroughput>& now, double seconds);

} // namespace calvane_program
