#pragma once

#include <memory>
#include <string>
#include <vector>

#include "http/Connection.h"
#include "http/Exchange.h"

namespace calvane_web {

/// Handles requests that have come on a connection, and writes what a handler replies.
///
/// Threads: Serve from any, of one connection at a time.
/// Errors:  what the handler throws is logged and answered with 500.
class HttpEngine {
public:
    /// `postPaths`: those to which a JSON body can be sent. The handler is called from the threads of Serve.
    HttpEngine(Handler handler, const std::vector<std::string>& postPaths);
    ~HttpEngine();

    /// Handles the whole requests (IsWhole) that `received` begins with, and removes them. Returns whether the connection can
    /// be used further.
    bool Serve(Connection& connection, std::string& received);

private:
    class Server;
    const std::unique_ptr<Server> server_;
};

/// Without control characters, quotes and backslashes, and not too long, for the log.
std::string ForLog(const std::string& fromOutside);

} // namespace calvane_web
