#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "TimeText.h"

namespace calvane_recording {

/// What every command understands.
struct CommonOptions {
    Zone zone = Zone::Utc; ///< Of times without an offset.
    std::string bus;
};

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
void AddCommonOptions(CLI::App& program, CommonOptions& options);
void AddMediaCommands(CLI::App& program, MediaOptions& options,
                      const std::function<void(MediaCommand)>& onChosen);

/// What both have in common once their options are declared: parses, selects the bus, runs `run`. Returns the exit
/// status: 0 done, 1 failed, 2 bad command line.
int RunProgram(CLI::App& program, const CommonOptions& options, int argc, char** argv,
               const std::function<void()>& run);

} // namespace calvane_recording
