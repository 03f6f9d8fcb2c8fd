#include "drenn/api/ServiceTarget.h"

#include "drenn/api/internal/CallingClient.h"

#include <cstdarg>

namespace drenn::api {
namespace {

thread_local std::string calling;

} // namespace

CallingClient::CallingClient(const std::string& name) {
    calling = name;
}

CallingClient::~CallingClient() {
    calling.clear();
}

const std::string& ServiceTarget::callingClient() {
    return calling;
}

ServiceTarget::~ServiceTarget() = default;

void ServiceTarget::log(drenn_core_log_priority priority, const char* format, ...) const {
    if (drenn_core_log_enabled(logCookie_, priority) == 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    drenn_core_vlog(logCookie_, priority, format, arguments);
    va_end(arguments);
}

} // namespace drenn::api
