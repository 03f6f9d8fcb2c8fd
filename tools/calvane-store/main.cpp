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
    return {{"id", facts.id},
            {"segments", facts.segments},
            {"bytes", facts.bytes},
            {"unsealed", facts.unsealed},
            {"recordings", recordings}};
}

void Print(const StoreFacts& facts) {
    std::cout << "store " << facts.id << ": " << facts.segments << " segments, " << facts.bytes << " bytes\n";
    if (facts.unsealed > 0) {
        std::cout << "not closed: " << facts.unsealed
                  << " more segments, whose records are not counted here\n";
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

struct Commands {
    CLI::App* info;
    CLI::App* verify;
    CLI::App* rebuild;
};

int Run(const Commands& commands, const std::string& folder, bool json) {
    std::optional<StoreInspection> store;
    try {
        store.emplace(folder);
    } catch (const std::exception& error) {
        std::cerr << "calvane-store: " << error.what() << "\n";
        return kNoStore;
    }
    try {
        if (commands.info->parsed()) {
            return Describe(*store, json);
        }
        if (commands.verify->parsed()) {
            return Report(store->Verify(), "good");
        }
        return Report(store->Rebuild(), "rebuilt");
    } catch (const std::exception& error) {
        std::cerr << "calvane-store: " << error.what() << "\n";
        return kSomethingWrong;
    }
}

int ParseAndRun(int argc, char** argv) {
    CLI::App program("Looks at a recording store that no program has open", "calvane-store");
    program.require_subcommand(1);
    program.footer(
        "DIR holds the folders data and database.\n"
        "Exit status: 0 good, 1 something is wrong or could not be rebuilt, 2 no store or a bad command "
        "line.");
    std::string folder;
    bool json = false;
    const Commands commands{
        program.add_subcommand("info", "Print what there is"),
        program.add_subcommand("verify", "Check every invariant and every checksum"),
        program.add_subcommand("rebuild", "Make a lost or damaged catalogue from the segments")};
    for (CLI::App* command : {commands.info, commands.verify, commands.rebuild}) {
        command->add_option("DIR", folder, "The folder of the store")->required();
    }
    commands.info->add_flag("--json", json, "Print JSON");
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? kGood : kNoStore;
    }
    return Run(commands, folder, json);
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
