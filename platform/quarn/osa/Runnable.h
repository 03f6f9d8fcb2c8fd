#pragma once

#include "quarn/Export.h"

namespace quarn::osa {

/// What a Thread runs.
class QUARN_API Runnable {
public:
    virtual ~Runnable() = default;
    /// The thread's body. An exception that leaves it ends the process.
    virtual void Run() = 0;
    /// Asks the body to end. May be called from any thread.
    virtual void Stop() = 0;
};

} // namespace quarn::osa
