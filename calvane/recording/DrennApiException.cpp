#include "calvane/recording/DrennApiException.h"

namespace quarn::calvane {

DrennApiException::DrennApiException(const std::string& call, drenn_status status)
    : std::runtime_error("Failed drenn api call: " + call), _status(status) {}

DrennApiException::~DrennApiException() = default;

void requireDrennSuccess(drenn_status status, const char* call) {
    if (status != DRENN_STATUS_OK) {
        throw DrennApiException(call, status);
    }
}

} // namespace quarn::calvane
