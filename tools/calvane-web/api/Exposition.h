#pragma once

#include <cstdint>
#include <string>

#include "http/Exchange.h"

namespace calvane_web {

/// What the server knows of itself.
struct ServerCounts {
    std::uint64_t connections = 0;
    std::uint64_t refused = 0;
    std::uint64_t open = 0;
};

/// Numbers in the text format of Prometheus (exposition format 0.0.4). All names begin with "calvane_".
class Exposition {
public:
    /// A family, whose samples follow.
    void Begin(const std::string& name, const char* type, const char* help);
    void Add(const std::string& value, const std::string& labels = {});
    void AddOne(const std::string& name, const char* type, const char* help, std::uint64_t value);
    void AddServer(const ServerCounts& counts);
    Reply Answer() &&;

private:
    std::string name_;
    std::string text_;
};

} // namespace calvane_web
