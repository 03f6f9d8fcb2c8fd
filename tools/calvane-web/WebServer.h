#pragma once

#include <string>

namespace calvane_web {

struct WebOptions {
    std::string listen = "127.0.0.1:8080";
    std::string page; ///< Empty: DefaultPageFolder().
    std::string certificateFile;
    std::string keyFile;
    std::string passwordFile;
    bool behindProxy = false;
};

/// Serves until SIGINT or SIGTERM. Returns the exit status. Throws std::invalid_argument for options that do not fit, and
/// std::exception when it cannot begin.
int RunWebServer(const WebOptions& options);

} // namespace calvane_web
