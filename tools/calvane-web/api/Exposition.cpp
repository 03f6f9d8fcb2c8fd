#include "api/Exposition.h"

#include <utility>

namespace calvane_web {

void Exposition::Begin(const std::string& name, const char* type, const char* help) {
    name_ = "calvane_" + name;
    text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
}

void Exposition::Add(const std::string& value, const std::string& labels) {
    text_ += name_ + labels + " " + value + "\n";
}

void Exposition::AddOne(const std::string& name, const char* type, const char* help, std::uint64_t value) {
    Begin(name, type, help);
    Add(std::to_string(value));
}

void Exposition::AddServer(const ServerCounts& counts) {
    AddOne("web_connections_total", "counter", "Connections of clients.", counts.connections);
    AddOne("web_connections_refused_total", "counter", "Connections beyond the limits.", counts.refused);
    AddOne("web_connections", "gauge", "Connections that are open.", counts.open);
}

Reply Exposition::Answer() && {
    Reply reply;
    reply.type = "text/plain; version=0.0.4; charset=utf-8";
    reply.headers = {{"Cache-Control", "no-store"}};
    reply.body = std::move(text_);
    return reply;
}

} // namespace calvane_web
