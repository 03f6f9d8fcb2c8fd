#pragma once

#include "api/ClientPool.h"
#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_web {

// The answers in JSON that are made of a few questions to the recorder; docs/reference/web-api.md describes them.
//
// Threads: any.
// Errors:  std::invalid_argument for a bad query, which names the parameter; those of ClientPool.

Reply AnswerSummary(ClientPool& clients, Query& query);
Reply AnswerTracks(ClientPool& clients, Query& query);
Reply AnswerState(ClientPool& clients, Query& query);
Reply AnswerAttributes(ClientPool& clients, Query& query);
Reply AnswerStatus(ClientPool& clients, Query& query);
Reply AnswerCoverage(ClientPool& clients, Query& query);
Reply AnswerHistory(ClientPool& clients, Query& query);
/// "ok", or 503 with the reason.
Reply AnswerHealth(ClientPool& clients, Query& query);

} // namespace calvane_web
