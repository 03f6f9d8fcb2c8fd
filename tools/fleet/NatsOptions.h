#pragma once

#include <string>
#include <vector>

namespace calvane_fleet {

/// How the servers are reached. Texts may be empty.
struct NatsOptions {
    std::vector<std::string> servers; ///< URLs.
    std::string domain;               ///< Of JetStream, for servers that reach it through a leaf node.
    std::string credentialsFile;      ///< User's token and seed.
    std::string userFile;             ///< "USER:PASSWORD" or a token, in the first line.
    std::string caFile;               ///< Trusted certificates (PEM); makes the connection one with TLS.
    std::string certificateFile;      ///< The client's own, with its key.
    std::string keyFile;
    std::string name; ///< Which the servers show.
};

} // namespace calvane_fleet
