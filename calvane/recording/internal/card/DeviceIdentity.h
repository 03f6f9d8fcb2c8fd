#pragma once

#include <string>

namespace quarn::calvane {

/// Model name, comma, serial number: what the device's recording is told by. Throws DrennApiException.
std::string readDeviceIdentity();

} // namespace quarn::calvane
