#pragma once

#include <string>

namespace calvane_program {

struct PluginsOptions {
    std::string type;   ///< Empty: list the types.
    std::string module; ///< Empty: the built-in types.
    bool json = false;
};

/// Lists plugin types, or tells what one type reads, takes and gives. For the latter it makes one plugin with
/// every setting at its default, and lets it go again. Returns the exit status.
int Plugins(const PluginsOptions& options);

} // namespace calvane_program
