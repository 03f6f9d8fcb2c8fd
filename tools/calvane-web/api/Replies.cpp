#include "api/Replies.h"

namespace calvane_web {

using nlohmann::json;

Reply JsonReply(const json& facts, int status) {
    Reply reply;
    reply.status = status;
    reply.type = "application/json";
    // Texts of the recorder and of requests may be no UTF-8.
    reply.body = facts.dump(-1, ' ', false, json::error_handler_t::replace);
    reply.headers = {{"Cache-Control", "no-store"}};
    return reply;
}

Reply ErrorReply(int status, const std::string& text) {
    return JsonReply({{"error", text}}, status);
}

Reply LaterReply(int status, const std::string& text, int seconds) {
    Reply reply = ErrorReply(status, text);
    reply.headers.emplace("Retry-After", std::to_string(seconds));
    return reply;
}

} // namespace calvane_web
