#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "TimeText.h"

namespace calvane_recording {

/// What the commands that write media understand. Times are as they were written.
struct MediaOptions {
    std::string from = "@0";
    std::string to = "now";
    std::string card; ///< Empty: the recorder is asked.
    std::string device;
    std::string output;
    std::string format;
    std::vector<std::string> tracks;
    std::string gaps = "keep";
    bool fragmented = false;
    bool force = false;
    bool json = false;
    std::string every = "10s";
    int width = 0;
    std::string player;
};

enum class MediaCommand { Export, Thumbnails, Play };

/// The command line is read twice: by calvane-recording, which has the help, and by the program that does it, which is
/// there where FFmpeg is.
/// Every command understands --bus and --local, which sets the zone of times without an offset.
void AddCommonOptions(CLI::App& program, Zone& zone);
void AddMediaCommands(CLI::App& program, MediaOptions& options,
                      const std::function<void(MediaCommand)>& onChosen);

} // namespace calvane_recording
