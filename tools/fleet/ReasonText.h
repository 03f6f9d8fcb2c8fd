#pragma once

#include <string>

namespace calvane_fleet {

/// Why there is no data in a device's stream, in words: the reasons of its recorder, and those of the copying.
std::string ReasonText(unsigned int reason);

} // namespace calvane_fleet
