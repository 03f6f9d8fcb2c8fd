#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "drenn/multi_track_recorder/StoreInspection.h"

namespace {

using namespace drenn::multi_track_recorder;

// What the program tells its caller.
constexpr int kGood = 0;
constexpr int kSomethingWrong = 1;
constexpr int kNoStore = 2; ///< Or a bad command line.

nlohmann::json ToJson(const StoreFacts& facts) {
    nlohmann::json recordings = nlohmann::json::array();
    for (const RecordingFacts& recording : facts.recordings) {
        nlohmann::json tracks = nlohmann::json::array();
        for (const TrackFacts& track : recording.tracks) {
            tracks.push_back({{"id", track.id},
                              {"class", track.isSparse ? "sparse" : "bulk"},
                              {"format", track.format.getName()},
                              {"version", track.format.getVersion()},
                              {"records", track.records}});
        }
        recordings.push_back({{"id", recording.id}, {"info", recording.info}, {"tracks", tracks}});
    }
    nlohmann::json aside = nlohmann::json::array();
    for (const SetAside& file : facts.aside) {
        aside.push_back({{"path", file.path}, {"bytes", file.bytes}});
    }
    return {{"id", facts.id},          {"segments", facts.segments},
            {"bytes", facts.bytes},    {"unsealed", facts.unsealed},
            {"damage", facts.damage},  {"aside", aside},
            {"recordings", recordings}};
}

void Print(const StoreFacts& facts) {
    std::cout << "store " << facts.id << ": " << facts.segments << " segments, " << facts.bytes << " bytes\n";
    if (facts.unsealed > 0) {
        std::cout << "not closed: " << facts.unsealed << " of them\n";
    }
    for (const std::string& line : facts.damage) {
        std::cout << "damaged: " << line << "\n";
    }
    for (const SetAside& file : facts.aside) {
        std::cout << "set aside: " << file.path << ", " << file.bytes << " bytes\n";
    }
    for (const RecordingFacts& recording : facts.recordings) {
        std::cout << "recording " << recording.id << " \"" << recording.info << "\"\n";
        for (const TrackFacts& track : recording.tracks) {
            std::cout << "  track " << track.id << (track.isSparse ? " (sparse)" : "") << ", format \""
                      << track.format.getName() << "\" version " << track.format.getVersion() << ": "
                      << track.records << " records\n";
        }
    }
}

int Describe(const StoreInspection& store, bool json) {
    const StoreFacts facts = store.Describe();
    if (json) {
        // Texts are whatever programs stored; what is not UTF-8 is replaced.
        std::cout << ToJson(facts).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        Print(facts);
    }
    return kGood;
}

int Report(const std::vector<std::string>& lines, const char* good) {
    for (const std::string& line : lines) {
        std::cout << line << "\n";
    }
    if (lines.empty()) {
        std::cout << good << "\n";
    }
    return lines.empty() ? kGood : kSomethingWrong;
}

int Verify(const StoreInspection& store) {
    const VerifyReport report = store.Verify();
    for (const std::string& line : report.wrong) {
        std::cout << line << "\n";
    }
    for (const std::string& line : report.notes) {
        std::cout << "note: " << line << "\n";
    }
    std::cout << "checked: "
              << (report.checked.empty() ? "nothing; the store was never made" : report.checked) << "\n";
    if (report.wrong.empty()) {
        std::cout << (report.notes.empty() ? "good" : "good, except what the notes say") << "\n";
    }
    return report.wrong.empty() ? kGood : kSomethingWrong;
}

struct Commands {
    CLI::App* info;
    CLI::App* verify;
    CLI::App* aside;
    CLI::App* rebuild;
    CLI::App* trim;
};

struct Options {
    std::string folder;
    bool json = false;
    unsigned int track = 0;
    unsigned int count = 0;
    std::string show;
    bool empty = false;
};

int LookAside(const StoreInspection& store, const Options& options) {
    if (options.empty) {
        for (const std::string& path : store.EmptyAside()) {
            std::cout << "removed " << path << "\n";
        }
        return kGood;
    }
    if (!options.show.empty()) {
        for (const std::string& line : store.ShowAside(options.show)) {
            std::cout << line << "\n";
        }
        return kGood;
    }
    for (const SetAside& file : store.Describe().aside) {
        std::cout << file.path << ", " << file.bytes << " bytes\n";
    }
    return kGood;
}

int Trim(const StoreInspection& store, const Options& options) {
    const unsigned int left = store.Trim(options.track, options.count);
    std::cout << "track " << options.track << ": " << left << " records are left\n";
    return kGood;
}

int Run(const Commands& commands, const Options& options) {
    std::optional<StoreInspection> store;
    try {
        store.emplace(options.folder);
    } catch (const std::exception& error) {
        std::cerr << "calvane-store: " << error.what() << "\n";
        return kNoStore;
    }
    try {
        if (commands.info->parsed()) {
            return Describe(*store, options.json);
        }
        if (commands.verify->parsed()) {
            return Verify(*store);
        }
        if (commands.aside->parsed()) {
            return LookAside(*store, options);
        }
        if (commands.trim->parsed()) {
            return Trim(*store, options);
        }
        return Report(store->Rebuild(), "rebuilt");
    } catch (const std::exception& error) {
        std::cerr << "calvane-store: " << error.what() << "\n";
        return kSomethingWrong;
    }
}

int ParseAndRun(int argc, char** argv) {
    CLI::App program("Looks after a recording store that no program has open", "calvane-store");
    program.set_version_flag("--version", "calvane-store " CALVANE_VERSION);
    program.require_subcommand(1);
    program.footer(
        "DIR holds the folders data and database.\n"
        "Exit status: 0 good, 1 something is wrong or could not be done, 2 no store or a bad command "
        "line.");
    Options options;
    const Commands commands{
        program.add_subcommand("info", "Print what there is"),
        program.add_subcommand("verify", "Check every invariant and every checksum"),
        program.add_subcommand("aside", "List what was set aside since nothing in it could be read"),
        program.add_subcommand("rebuild", "Make a lost or damaged catalogue from the segments"),
        program.add_subcommand("trim",
                               "Erase the newest records of a track, such as one that cannot be read")};
    for (CLI::App* command :
         {commands.info, commands.verify, commands.aside, commands.rebuild, commands.trim}) {
        command->add_option("DIR", options.folder, "The folder of the store")->required();
    }
    commands.info->add_flag("--json", options.json, "Print JSON");
    const auto show =
        commands.aside->add_option("--show", options.show, "Tell what can be read of this file");
    commands.aside->add_flag("--empty", options.empty, "Remove all of it")->excludes(show);
    commands.trim->add_option("TRACK", options.track, "The track's number, as info prints it")->required();
    commands.trim->add_option("COUNT", options.count, "How many records")
        ->required()
        ->check(CLI::PositiveNumber);
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& answer) { // --help and --version
        return program.exit(answer);
    } catch (const CLI::ParseError& error) {
        std::cerr << "calvane-store: " << error.what() << " (see calvane-store --help)\n";
        return kNoStore;
    }
    return Run(commands, options);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "calvane-store: " << error.what() << "\n";
        return kSomethingWrong;
    }
}
