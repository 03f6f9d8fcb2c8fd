#include <csignal>
#include <exception>
#include <iostream>

extern "C" {
#include <libavutil/log.h>
}

#include "Commands.h"
#include "MediaCommandLine.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "pipelines/SignalWatcher.h"

namespace {

using namespace calvane_recording;

int Run(int argc, char** argv) {
    CLI::App program("Writes recorded media; calvane-recording runs it.", "calvane-recording");
    program.set_version_flag("--version", std::string("calvane-recording-media ") + quarn::calvane::kVersion);
    CommonOptions common;
    MediaRun run;
    MediaCommand command = MediaCommand::Export;
    AddCommonOptions(program, common);
    AddMediaCommands(program, run.options, [&command](MediaCommand chosen) { command = chosen; });
    return RunProgram(program, common, argc, argv, [&] {
        run.zone = common.zone;
        std::signal(SIGPIPE, SIG_IGN); // It is told as an error of writing.
        av_log_set_level(AV_LOG_ERROR);
        calvane_program::SignalWatcher signals;
        signals.Watch([&run] { run.isInterrupted = true; });
        switch (command) {
            case MediaCommand::Export:
                return ExportMovie(run);
            case MediaCommand::Thumbnails:
                return WriteThumbnails(run);
            case MediaCommand::Play:
                return Play(run);
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "calvane-recording: " << error.what() << "\n";
        return 1;
    }
}
