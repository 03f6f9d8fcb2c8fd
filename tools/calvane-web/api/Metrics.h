#pragma once

#include <cstdint>

#include "api/ClientPool.h"
#include "api/Exposition.h"
#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_web {

/// The recorder's numbers and the server's own. Without a recorder only the server's, and calvane_recorder_up is 0.
Reply AnswerMetrics(ClientPool& clients, Query& query, const ServerCounts& counts, std::uint64_t busErrors);

} // namespace calvane_web
