#pragma once

#include "FleetConnections.h"
#include "FleetKnowledge.h"
#include "FleetMedia.h"
#include "WebServer.h"
#include "api/Media.h"

namespace calvane_web {

/// What the devices of a fleet have copied into its streams.
class FleetContent : public IWebContent {
public:
    explicit FleetContent(const calvane_fleet::NatsOptions& options);

    std::string Page() const override { return "fleet.html"; }
    void AddTo(Site& site, const ServerFacts& server) override;
    void Stop() override { media_.Stop(); }

private:
    Reply AnswerDevices(Query& query);
    Reply AnswerCoverage(Query& query);
    Reply AnswerHistory(Query& query);
    Reply AnswerHealth(Query& query);
    Reply AnswerMetrics(Query& query, const ServerCounts& counts);

    FleetConnections connections_;
    FleetKnowledge knowledge_;
    FleetMedia sources_;
    Media media_;
};

} // namespace calvane_web
