#pragma once

#include <string>

namespace quarn::calvane {

/// The framework's name type: compared byte by byte, the common prefix first, then the shorter one first.
/// Letter case counts.
using ncstring = std::string;

} // namespace quarn::calvane
