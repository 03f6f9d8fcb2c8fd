#include <csignal>
#include <memory>

extern "C" {
#include <libavutil/log.h>
}

#include "Commands.h"
#include "MediaCommandLine.h"
#include "calvane/Version.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "pipelines/SignalWatcher.h"

namespace {

using namespace calvane_recording;

struct Program {
    MediaRun run;
    MediaCommand command = MediaCommand::Export;
};

int Run(Program& program) {
    std::signal(SIGPIPE, SIG_IGN); // It is told as an error of writing.
    av_log_set_level(AV_LOG_ERROR);
    MediaRun& run = program.run;
    calvane_program::SignalWatcher signals;
    signals.Watch([&run] { run.isInterrupted = true; });
    switch (program.command) {
        case MediaCommand::Export:
            ExportMovie(run);
            break;
        case MediaCommand::Thumbnails:
            WriteThumbnails(run);
            break;
        case MediaCommand::Play:
            Play(run);
            break;
    }
    return calvane_program::kDone;
}

} // namespace

int main(int argc, char** argv) {
    return calvane_program::RunProgram(
        "calvane-recording", "Writes recorded media; calvane-recording runs it.", argc, argv,
        [](CLI::App& app) {
            const auto program = std::make_shared<Program>();
            app.set_version_flag("--version",
                                 std::string("calvane-recording-media ") + quarn::calvane::kVersion);
            AddCommonOptions(app, program->run.zone);
            AddMediaCommands(app, program->run.options,
                             [&command = program->command](MediaCommand chosen) { command = chosen; });
            return [program] { return Run(*program); };
        });
}
