#pragma once

#include <string>

namespace calvane_program {

/// Becomes another program of calvane, with the same command line: one that needs libraries which a device may be without.
///
/// Errors: std::runtime_error "`user` needs `what` and the program ...", which says that the component is to be installed.
[[noreturn]] void BecomeProgram(const std::string& name, char** argv, const std::string& user,
                                const std::string& what, const std::string& component);

} // namespace calvane_program
