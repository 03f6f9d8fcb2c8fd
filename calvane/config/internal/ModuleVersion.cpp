#include "calvane/config/internal/ModuleVersion.h"

#include "calvane/Version.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringBuilder.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

void AssertModuleVersionCompatible(const std::string& name, unsigned short major, unsigned short minor,
                                   unsigned short patch) {
    core::StringBuilder version;
    version << static_cast<unsigned int>(major) << '.' << static_cast<unsigned int>(minor) << '.'
            << static_cast<unsigned int>(patch);
    if (major != kVersionMajor || minor > kVersionMinor) {
        throw osa::Exception(name + " expects version " + version.ToString() +
                             " of calvane, which is incompatible with the current version of " + kVersion);
    }
    if (minor == kVersionMinor && patch > kVersionPatch) {
        core::Logger::GetLogger("calvane")->Information(
            "%s was built against version %s of calvane, which is newer than the current version of %s",
            name.c_str(), version.ToString().c_str(), kVersion);
    }
}

} // namespace quarn::calvane
