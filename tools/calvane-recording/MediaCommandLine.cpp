#include "MediaCommandLine.h"

#include <utility>

#include "command_line/RunProgram.h"

namespace calvane_recording {
namespace {

void AddSource(CLI::App& command, MediaOptions& options) {
    command.add_option("--from", options.from, "The begin; of all that is recorded, without it")
        ->type_name("TIME");
    command.add_option("--to", options.to, "The end")->type_name("TIME")->capture_default_str();
    CLI::Option* const card =
        command
            .add_option("--card", options.card,
                        "Read this folder, which has data and database, instead of asking the recorder")
            ->type_name("DIR");
    command.add_option("--device", options.device, "Of the recordings on the card that of this device")
        ->type_name("MODEL,NUMBER")
        ->needs(card);
}

void AddTracks(CLI::App& command, MediaOptions& options) {
    command.add_option("--track", options.tracks, "video, audio, metadata, or some of them with commas")
        ->type_name("TRACK")
        ->delimiter(',');
    command
        .add_option("--gaps", options.gaps, "keep: they take their time in the file; skip: they are left out")
        ->type_name("HOW")
        ->check(CLI::IsMember({"keep", "skip"}))
        ->capture_default_str();
}

} // namespace

void AddCommonOptions(CLI::App& program, Zone& zone) {
    calvane_program::AddBusOption(program);
    program.add_flag_callback(
        "--local", [&zone] { zone = Zone::Local; },
        "Print times in local time, and read those without an offset as such");
    program.require_subcommand(1);
    program.fallthrough();
}

void AddMediaCommands(CLI::App& program, MediaOptions& options,
                      const std::function<void(MediaCommand)>& onChosen) {
    CLI::App* const movie = program.add_subcommand("export", "Write video, audio and metadata into a file");
    AddSource(*movie, options);
    AddTracks(*movie, options);
    movie->add_option("FILE", options.output, "Ends in .mp4, .mkv or .ts; - for standard output")->required();
    movie->add_option("--format", options.format, "mp4, mkv or ts, whatever the file's name; mkv with -")
        ->type_name("FORMAT");
    movie->add_flag("--fragmented", options.fragmented,
                    "An mp4 file in fragments, as streaming and pipes need it");
    movie->add_flag("--force", options.force, "Overwrite a file that is there");
    movie->add_flag("--json", options.json, "Print JSON");

    CLI::App* const pictures = program.add_subcommand("thumbnails", "Write key frames as JPEG files");
    AddSource(*pictures, options);
    pictures->add_option("--every", options.every, "The time between two pictures")
        ->type_name("DURATION")
        ->capture_default_str();
    pictures->add_option("--out", options.output, "The folder for the files, which is made")
        ->type_name("DIR")
        ->required();
    pictures->add_option("--width", options.width, "Scale them to so many pixels")
        ->type_name("PIXELS")
        ->check(CLI::Range(16, 16384));
    pictures->add_flag("--force", options.force, "Overwrite files that are there");

    CLI::App* const play = program.add_subcommand("play", "Write to a player, or to standard output for one");
    AddSource(*play, options);
    AddTracks(*play, options);
    play->add_option("--player", options.player,
                     "Start this one: ffplay, mpv or another that reads - as a file")
        ->type_name("PROGRAM");

    const std::vector<std::pair<CLI::App*, MediaCommand>> commands{
        {movie, MediaCommand::Export}, {pictures, MediaCommand::Thumbnails}, {play, MediaCommand::Play}};
    for (const auto& [command, which] : commands) {
        command->callback([onChosen, which = which] { onChosen(which); });
    }
}

} // namespace calvane_recording
