#pragma once

#include <string>

namespace calvane_program {

/// Tells all that is wrong with a description. `build`: also makes and connects every plugin, without
/// starting any pipeline. Returns the exit status.
int Check(const std::string& file, bool build);

} // namespace calvane_program
