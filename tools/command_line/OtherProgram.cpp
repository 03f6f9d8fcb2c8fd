#include "command_line/OtherProgram.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace calvane_program {

void BecomeProgram(const std::string& name, char** argv, const std::string& user, const std::string& what,
                   const std::string& component) {
    const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    // As installed, and as built.
    for (const auto& path : {folder / CALVANE_LIBEXEC_FROM_BIN / name, folder / name}) {
        execv(path.c_str(), argv);
        if (errno != ENOENT) {
            throw std::runtime_error("Cannot start " + path.string() + ": " + std::strerror(errno));
        }
    }
    throw std::runtime_error(user + " needs " + what + " and the program " + name +
                             ", which are not installed here: install calvane's component \"" + component +
                             "\"");
}

} // namespace calvane_program
