#pragma once

#include <string>

namespace calvane_program {

/// Writes the graph that a description stands for to the standard output stream, in the DOT language. It
/// makes no plugin and loads no module. Returns the exit status.
int Graph(const std::string& file);

} // namespace calvane_program
