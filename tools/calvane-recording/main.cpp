#include <CLI/CLI.hpp>
#include <cstdlib>
#include <functional>
#include <memory>

#include "Commands.h"
#include "MediaCommandLine.h"
#include "RecordingClient.h"
#include "command_line/ExitStatus.h"
#include "command_line/OtherProgram.h"
#include "command_line/RunProgram.h"

namespace {

using namespace calvane_recording;

using ClientCommand = void (*)(RecordingClient&, const Options&);

/// The command line, and what is to be done for it.
class Program {
public:
    Program(CLI::App& app, char** argv);
    int Run();

private:
    CLI::App* AddCommand(const char* name, const char* what, ClientCommand command);
    void AddSpan(CLI::App* command);
    void AddTrack(CLI::App* command, bool required);
    void AddRetention();

    CLI::App& app_;
    char** const argv_;
    Options options_;
    MediaOptions media_; // Checked here, and used by the program for media.
    std::string settings_;
    std::function<void()> chosen_;
};

Program::Program(CLI::App& app, char** argv) : app_(app), argv_(argv) {
    AddCommonOptions(app_, options_.zone);
    app_.footer(
        "Times are ISO 8601 (2026-11-21T13:00:00Z, with +02:00 for Z, a date or 13:00 alone), in UTC when "
        "they\n"
        "say nothing else and --local is not given; today, yesterday, now; relative (-5min, 10s ago); @ and\n"
        "seconds since 1970.\n"
        "--json prints one document with times in UTC and durations in seconds; history --follow, watch and\n"
        "read --list print one such document per line.\n"
        "Exit status: 0 done, 1 the recorder is not there, refuses or has lost data, 2 bad command line.\n"
        "Examples:\n"
        "  calvane-recording summary\n"
        "  calvane-recording coverage --from -1h\n"
        "  calvane-recording export --from -1min clip.mp4\n"
        "  calvane-recording play --from 13:00 --player ffplay");

    AddCommand("summary", "Print from when to when there are recordings", &PrintSummary);
    AddCommand("status", "Print how the recorder and its card are, and until when there is room",
               &PrintStatus);
    AddTrack(AddCommand("tracks", "Print what each track holds", &PrintTracks), false);
    CLI::App* const history = AddCommand("history", "Print when data came and went", &PrintHistory);
    AddSpan(history);
    history->add_flag("--follow", options_.follow, "Go on with what is written to the history from now on");
    CLI::App* const state = AddCommand("state", "Print what is recorded of a moment", &PrintState);
    state->add_option("--at", options_.at, "The moment")->type_name("TIME")->capture_default_str();
    CLI::App* const coverage =
        AddCommand("coverage", "Print where there is data, and why there is none elsewhere", &PrintCoverage);
    AddSpan(coverage);
    AddTrack(coverage, false);
    CLI::App* const attributes =
        AddCommand("attributes", "Print what the media of a moment are", &PrintAttributes);
    attributes->add_option("--at", options_.at, "The moment")->type_name("TIME")->capture_default_str();
    AddTrack(attributes, false);
    CLI::App* const read =
        AddCommand("read", "Write the contents of records to standard output", &ReadRecords);
    AddSpan(read);
    AddTrack(read, true);
    read->add_flag("--list", options_.list, "Print a line for each record instead");
    read->add_flag("--from-key", options_.fromKey,
                   "Begin with the key frame that is shown at the begin or before it");
    // A program of its own, so that a device without FFmpeg has all other commands.
    AddMediaCommands(app_, media_, [this](MediaCommand) {
        chosen_ = [this] {
            calvane_program::BecomeProgram("calvane-recording-media", argv_, "This command", "FFmpeg",
                                           "media");
        };
    });
    AddCommand("watch", "Print events as they come", &Watch);
    AddRetention();
}

CLI::App* Program::AddCommand(const char* name, const char* what, ClientCommand command) {
    CLI::App* const added = app_.add_subcommand(name, what);
    added->add_flag("--json", options_.json, "Print JSON");
    added->callback([this, command] {
        chosen_ = [this, command] {
            RecordingClient client;
            command(client, options_);
        };
    });
    return added;
}

void Program::AddSpan(CLI::App* command) {
    command->add_option("--from", options_.from, "The begin; of all that is recorded, without it")
        ->type_name("TIME");
    command->add_option("--to", options_.to, "The end")->type_name("TIME")->capture_default_str();
}

void Program::AddTrack(CLI::App* command, bool required) {
    command->add_option("--track", options_.track, "video, audio or metadata")
        ->type_name("TRACK")
        ->required(required);
}

void Program::AddRetention() {
    CLI::App* const retention =
        app_.add_subcommand("retention", "Print or set how long recorded data is kept at most, and how much");
    retention->add_option("--settings", settings_, "This settings database, instead of asking the recorder")
        ->type_name("FILE");
    retention->add_flag("--json", options_.json, "Print JSON");
    retention->add_subcommand("get", "Print it");
    CLI::App* const set =
        retention->add_subcommand("set", "Set it; a running recorder erases at once what is beyond");
    set->add_option("DURATION", options_.limit, "90s, 5min, 2h, 30d, sums such as 1d12h, or none");
    const CLI::AsSizeValue size(true); // kB is 1000, KiB is 1024.
    set->add_option("--data", options_.dataSpace,
                    "The most that video, audio and metadata take together: 100GB, 64GiB; 0 for no limit")
        ->transform(size)
        ->type_name("SIZE");
    set->add_option("--history", options_.historySpace, "The most that the history takes")
        ->transform(size)
        ->type_name("SIZE");
    retention->require_subcommand(0, 1);
    retention->fallthrough();
    retention->final_callback([this, set] {
        if (set->parsed()) {
            chosen_ = [this] { SetRetention(options_); };
        } else {
            chosen_ = [this] { GetRetention(options_); };
        }
    });
}

int Program::Run() {
    options_.file = !settings_.empty();
    if (options_.file) {
        setenv("DRENN_SETTINGS", settings_.c_str(), 1);
    }
    chosen_();
    return calvane_program::kDone;
}

} // namespace

int main(int argc, char** argv) {
    return calvane_program::RunProgram("calvane-recording", "Tells what the device has recorded.", argc, argv,
                                       [argv](CLI::App& app) {
                                           const auto program = std::make_shared<Program>(app, argv);
                                           return [program] { return program->Run(); };
                                       });
}
