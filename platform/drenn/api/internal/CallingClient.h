#pragma once

#include <string>

namespace drenn::api {

/// Says whose call this thread answers as long as it lives; see ServiceTarget::callingClient.
class CallingClient {
public:
    explicit CallingClient(const std::string& name);
    ~CallingClient();
    CallingClient(const CallingClient&) = delete;
    CallingClient& operator=(const CallingClient&) = delete;
};

} // namespace drenn::api
