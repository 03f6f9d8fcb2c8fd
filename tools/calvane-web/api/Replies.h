#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "http/Exchange.h"

namespace calvane_web {

Reply JsonReply(const nlohmann::json& facts, int status = 200);
/// {"error": text}
Reply ErrorReply(int status, const std::string& text);
/// 503 or 429, with the time after which it may be tried again.
Reply LaterReply(int status, const std::string& text, int seconds);

} // namespace calvane_web
