#include "MediaProgram.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace calvane_recording {

void BecomeMediaProgram(char** argv) {
    const std::string name = "calvane-recording-media";
    const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    // As installed, and as built.
    for (const auto& path : {folder / CALVANE_LIBEXEC_FROM_BIN / name, folder / name}) {
        execv(path.c_str(), argv);
        if (errno != ENOENT) {
            throw std::runtime_error("Cannot start " + path.string() + ": " + std::strerror(errno));
        }
    }
    throw std::runtime_error("This command needs FFmpeg and the program " + name +
                             ", which are not installed here: install calvane's component \"media\"");
}

} // namespace calvane_recording
