#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/Exposition.h"
#include "api/Site.h"

namespace calvane_web {

struct WebOptions {
    std::string listen = "127.0.0.1:8080";
    std::string page; ///< Empty: DefaultPageFolder().
    std::string certificateFile;
    std::string keyFile;
    std::string passwordFile;
    bool behindProxy = false;
};

/// What a content may ask its server, from any thread.
struct ServerFacts {
    std::function<ServerCounts()> counts;
    /// Who asks, to bound what one has of all; empty for somebody who may be many.
    std::function<std::string(const Request&)> clientOf;
};

/// What is served: a page, and what it asks for.
///
/// Lifetime: outlives the server.
class IWebContent {
public:
    /// The file in the page's folder that "/" is.
    virtual std::string Page() const = 0;
    virtual void AddTo(Site& site, const ServerFacts& server) = 0;
    /// Ends the answers under way.
    virtual void Stop() = 0;
    virtual ~IWebContent() = default;
};

/// Serves until SIGINT or SIGTERM. Returns the exit status. Throws std::invalid_argument for options that do not fit, and
/// std::exception when it cannot begin. `makeContent` is called when threads may be made.
int RunWebServer(const WebOptions& options, const std::function<std::unique_ptr<IWebContent>()>& makeContent);

} // namespace calvane_web
