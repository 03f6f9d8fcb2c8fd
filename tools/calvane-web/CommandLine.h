#pragma once

#include <string>

#include "WebServer.h"
#include "fleet/NatsOptions.h"

namespace calvane_web {

/// What the command line of calvane-web says.
struct CommandLine {
    WebOptions web;
    bool hashPassword = false;
    bool isOfFleet = false;
    calvane_fleet::NatsOptions nats; ///< With `isOfFleet` it has servers.
};

/// Parses the command line, and calls `serve` unless there is something else to do. Returns the exit status; what was wrong is
/// said on standard error.
int RunProgram(int argc, char** argv, int (*serve)(const CommandLine& line, char** argv));

} // namespace calvane_web
