#pragma once

#include <cstdint>
#include <functional>

#include "api/ClientPool.h"
#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_web {

/// What the server knows of itself.
struct ServerCounts {
    std::uint64_t connections = 0;
    std::uint64_t refused = 0;
    std::uint64_t open = 0;
    std::uint64_t busErrors = 0;
};

/// The recorder's numbers and the server's own, in the text format of Prometheus (exposition format 0.0.4). Without a recorder
/// only the server's, and calvane_recorder_up is 0.
Reply AnswerMetrics(ClientPool& clients, Query& query, const ServerCounts& counts);

} // namespace calvane_web
