#pragma once

#include <stdexcept>
#include <string>

#include "calvane/Export.h"
#include "drenn/core/Status.h"

namespace quarn::calvane {

/// A call of the platform's C interface has failed. The text is "Failed drenn api call: " and the call.
class CALVANE_API DrennApiException : public std::runtime_error {
public:
    /// `call`: as it is written.
    DrennApiException(const std::string& call, drenn_status status);
    ~DrennApiException() override;

    drenn_status getStatus() const { return _status; }

private:
    const drenn_status _status;
};

/// Throws DrennApiException unless `status` is 0.
void requireDrennSuccess(drenn_status status, const char* call);

/// Makes a call of the C interface; one that fails is thrown under its own text, as written here.
#define CALVANE_DRENN_CALL(...) ::quarn::calvane::requireDrennSuccess((__VA_ARGS__), #__VA_ARGS__)

} // namespace quarn::calvane
