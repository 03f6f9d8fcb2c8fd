#pragma once

#include <string>

namespace quarn::calvane {

/// Throws Exception "NAME expects version ... of calvane, which is incompatible with the current version of
/// 1.3.0" unless major is 1 and minor at most 3. A newer patch level is accepted with a line in the log.
void AssertModuleVersionCompatible(const std::string& name, unsigned short major, unsigned short minor,
                                   unsigned short patch);

} // namespace quarn::calvane
