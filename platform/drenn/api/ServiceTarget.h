#pragma once

#include <string>

#include "drenn/Export.h"
#include "drenn/core/Logging.h"

namespace drenn::api {

/// What the implementations of services have in common: they log through a handle.
///
/// Threads: any.
class DRENN_API ServiceTarget {
public:
    /// `logCookie`: a handle of drenn_core_logging_init, or null; it must live as long as this object.
    explicit ServiceTarget(void* logCookie) : logCookie_(logCookie) {}
    virtual ~ServiceTarget();
    ServiceTarget(const ServiceTarget&) = delete;
    ServiceTarget& operator=(const ServiceTarget&) = delete;

    /// The name on the bus of the client whose call this thread is answering; empty outside of calls, and where the
    /// operation does not ask for it.
    static const std::string& callingClient();

    /// Logs through the handle, printf-style.
    [[gnu::format(printf, 3, 4)]] virtual void log(drenn_core_log_priority priority, const char* format,
                                                   ...) const;

private:
    void* const logCookie_;
};

} // namespace drenn::api
