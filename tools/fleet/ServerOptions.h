#pragma once

#include <string>

#include "fleet/NatsOptions.h"

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace calvane_fleet {

/// Adds the options that say how the fleet's servers are reached. Returns that with their URLs. Those of the client's
/// certificate and key end in -cert and -key behind `certificates`.
CLI::Option* AddServerOptions(CLI::App& program, NatsOptions& nats,
                              const std::string& certificates = "--tls");

} // namespace calvane_fleet
