#include <CLI/CLI.hpp>
#include <csignal>
#include <memory>

#include "FleetCommands.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "fleet/ServerOptions.h"
#include "pipelines/SignalWatcher.h"

namespace {

using namespace calvane_fleet;

using Command = void (*)(const FleetRun&);

class Program {
public:
    explicit Program(CLI::App& app);
    int Run();

private:
    CLI::App* AddCommand(const char* name, const char* what, Command command);
    void AddServers();
    void AddDevice(CLI::App& command, bool required);
    void AddSpan(CLI::App& command);
    void AddTracks(CLI::App& command);
    void AddExport();

    CLI::App& app_;
    FleetRun run_;
    Command chosen_ = nullptr;
};

Program::Program(CLI::App& app) : app_(app) {
    AddServers();
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(
        "Times are as with calvane-recording. A device's name is that of its uplink's policy.\n"
        "Exit status: 0 done, 1 failed, 2 bad command line.\n"
        "Examples:\n"
        "  calvane-fleet --server nats://hub:4222 devices\n"
        "  calvane-fleet coverage --device gate-3 --from -1d\n"
        "  calvane-fleet export --device gate-3 --from 13:00 --to 13:05 clip.mp4");
    AddCommand("devices", "Print which devices there are", &PrintDevices);
    CLI::App* const tracks = AddCommand("tracks", "Print what each track of a device holds", &PrintTracks);
    AddDevice(*tracks, true);
    AddTracks(*tracks);
    CLI::App* const coverage =
        AddCommand("coverage", "Print where there is data, and why there is none elsewhere", &PrintCoverage);
    AddDevice(*coverage, true);
    AddSpan(*coverage);
    AddTracks(*coverage);
    CLI::App* const history = AddCommand("history", "Print when data came and went", &PrintHistory);
    AddDevice(*history, true);
    AddSpan(*history);
    AddDevice(*AddCommand("watch", "Print events, gaps and changes of media as they come", &Watch), false);
    AddExport();
}

void Program::AddServers() {
    run_.nats.name = "calvane-fleet";
    AddServerOptions(app_, run_.nats)->required();
    app_.add_flag_callback(
        "--local", [this] { run_.zone = calvane_recording::Zone::Local; },
        "Print times in local time, and read those without an offset as such");
    app_.add_flag("--json", run_.json, "Print JSON");
}

CLI::App* Program::AddCommand(const char* name, const char* what, Command command) {
    CLI::App* const added = app_.add_subcommand(name, what);
    added->callback([this, command] { chosen_ = command; });
    return added;
}

void Program::AddDevice(CLI::App& command, bool required) {
    command.add_option("--device", run_.device, "The device's name")->type_name("NAME")->required(required);
}

void Program::AddSpan(CLI::App& command) {
    command.add_option("--from", run_.from, "The begin; of all that is recorded, without it")
        ->type_name("TIME");
    command.add_option("--to", run_.to, "The end")->type_name("TIME")->capture_default_str();
}

void Program::AddTracks(CLI::App& command) {
    command.add_option("--track", run_.tracks, "video, audio, metadata, or some of them with commas")
        ->type_name("TRACK")
        ->delimiter(',');
}

void Program::AddExport() {
#ifdef CALVANE_FLEET_EXPORTS
    CLI::App* const movie = AddCommand("export", "Write video, audio and metadata into a file", &Export);
    AddDevice(*movie, true);
    AddSpan(*movie);
    AddTracks(*movie);
    movie->add_option("FILE", run_.output, "Ends in .mp4, .mkv or .ts; - for standard output")->required();
    movie->add_option("--format", run_.format, "mp4, mkv or ts, whatever the file's name; mkv with -")
        ->type_name("FORMAT");
    movie->add_option("--gaps", run_.gaps, "keep: they take their time in the file; skip: they are left out")
        ->type_name("HOW")
        ->check(CLI::IsMember({"keep", "skip"}))
        ->capture_default_str();
    movie->add_flag("--fragmented", run_.fragmented,
                    "An mp4 file in fragments, as streaming and pipes need it");
    movie->add_flag("--force", run_.force, "Overwrite a file that is there");
#endif
}

int Program::Run() {
    std::signal(SIGPIPE, SIG_IGN); // It is told as an error of writing.
    calvane_program::SignalWatcher signals;
    signals.Watch([this] { run_.isInterrupted = true; });
    chosen_(run_);
    return calvane_program::kDone;
}

} // namespace

int main(int argc, char** argv) {
    return calvane_program::RunProgram("calvane-fleet",
                                       "Tells what a fleet of devices has recorded, from its streams.", argc,
                                       argv, [](CLI::App& app) {
                                           const auto program = std::make_shared<Program>(app);
                                           return [program] { return program->Run(); };
                                       });
}
