#pragma once

#include <string>

#include "quarn/Export.h"
#include "quarn/osa/Exception.h"

namespace quarn::osa {

/// A lock or semaphore that could not be made, taken or released.
class QUARN_API LockException : public Exception {
public:
    /// `code`: what failed, an errno value for failures of the system, otherwise the thrower's own.
    /// `timedOut` is true when the only thing wrong was that the time-out passed.
    LockException(int code, const std::string& text, bool timedOut = false);
    LockException(const LockException& other);
    ~LockException() override;

    int GetCode() const { return code_; }
    bool IsTimeout() const { return timedOut_; }

private:
    int code_;
    bool timedOut_;
};

} // namespace quarn::osa
