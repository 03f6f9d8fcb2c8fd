#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>

#include "Commands.h"
#include "Json.h"
#include "Progress.h"
#include "Source.h"
#include "media_export/Export.h"
#include "media_export/OutputFile.h"

namespace calvane_recording {
namespace {

using calvane_export::Change;
using calvane_export::Container;
using calvane_export::ExportOptions;
using calvane_export::OutputDescriptor;
using calvane_export::OutputFile;
using calvane_export::Part;

std::string EndOf(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const bool hasEnd = dot != std::string::npos && path.find('/', dot) == std::string::npos;
    return hasEnd ? path.substr(dot + 1) : "";
}

Container ContainerOf(const MediaOptions& options) {
    if (!options.format.empty()) {
        return calvane_export::ParseContainer(options.format);
    }
    if (options.output == "-") {
        return Container::Matroska; // It needs no look back and takes every codec.
    }
    try {
        return calvane_export::ParseContainer(EndOf(options.output));
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("The name of \"" + options.output +
                                    "\" ends neither in .mp4 nor in .mkv nor in .ts: say --format");
    }
}

/// clip.mp4, clip-2.mp4, clip-3.mp4 ...
std::string PathOf(const std::string& path, unsigned int part) {
    const std::string end = EndOf(path);
    const std::string number = part == 1 ? "" : "-" + std::to_string(part);
    return end.empty() ? path + number : path.substr(0, path.size() - end.size() - 1) + number + "." + end;
}

std::string ChangeText(const Change& change) {
    return std::string("the ") + NameOf(change.track) + " changes at " + TimeText(change.time, Zone::Utc);
}

json ToJson(const Part& part, const std::string& path) {
    json facts{{"path", path},
               {"first", TimeText(part.begin, Zone::Utc)},
               {"last", TimeText(part.end, Zone::Utc)},
               {"bytes", part.bytes},
               {"skipped", SecondsOf(part.joined)},
               {"unreadable", part.losses.unreadable},
               {"beforeKeyFrame", part.beforeKeyFrame}};
    for (const TrackKind track : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
        const auto index = static_cast<std::size_t>(track);
        facts["records"][NameOf(track)] = part.records.at(index);
        facts["leftOut"][NameOf(track)] = part.leftOut.at(index);
    }
    return facts;
}

std::string ToText(const Part& part, const std::string& path, Zone zone) {
    std::string text = path + ": " + TimeText(part.begin, zone) + " to " + TimeText(part.end, zone) + " (" +
                       DurationText(part.end - part.begin) + ")";
    for (const TrackKind track : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
        if (const auto records = part.records.at(static_cast<std::size_t>(track))) {
            text += std::string(", ") + NameOf(track) + " " + std::to_string(records);
        }
    }
    text += " packets, " + std::to_string(part.bytes) + " bytes";
    if (part.joined != 0) {
        text += "; gaps of " + DurationText(part.joined) + " left out";
    }
    return text;
}

/// What is not in the file although it was recorded, on standard error.
void Warn(const char* program, const Part& part) {
    if (part.beforeKeyFrame != 0) {
        std::cerr << program << ": " << part.beforeKeyFrame
                  << " records of video lie before the first key frame and were left out\n";
    }
    for (const TrackKind track : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
        if (const auto count = part.leftOut.at(static_cast<std::size_t>(track))) {
            std::cerr << program << ": " << count << " records of " << NameOf(track) << " were left out: "
                      << (track == TrackKind::Metadata ? "they are no text, or the format holds none"
                                                       : "they are empty")
                      << "\n";
        }
    }
}

void ExportToOutput(const MediaRun& run, const Source& source, const ExportOptions& options) {
    if (isatty(STDOUT_FILENO) == 1) {
        throw std::invalid_argument("Standard output is a terminal: redirect it, or name a file");
    }
    OutputDescriptor output(STDOUT_FILENO);
    const Part part = ExportPart(source.Records(), output, options);
    Warn(run.program, part);
    if (part.change) {
        throw std::runtime_error("The output ends early, since " + ChangeText(*part.change) +
                                 ", which needs another file: export again from then on");
    }
    RequireWhole(part.losses);
}

void ExportToFiles(const MediaRun& run, const Source& source, const ExportOptions& options) {
    json files = json::array();
    Losses losses;
    std::optional<Change> change;
    for (unsigned int number = 1; number == 1 || change; ++number) {
        const std::string path = PathOf(run.options.output, number);
        OutputFile file(path, run.options.force);
        Part part;
        {
            Progress progress(options.span);
            ExportOptions watched = options;
            watched.onRecord = [&](Time at) {
                options.onRecord(at);
                progress.Show(at);
            };
            part = ExportPart(source.Records(), file, watched, change);
            file.Keep();
        }
        Warn(run.program, part);
        files.push_back(ToJson(part, path));
        if (!run.options.json) {
            std::cout << ToText(part, path, run.zone) << std::endl;
            if (part.change) {
                std::cout << "Another file is needed, since " << ChangeText(*part.change) << std::endl;
            }
        }
        losses += part.losses;
        change = part.change;
    }
    if (run.options.json) {
        Print(json{{"files", files}});
    }
    RequireWhole(losses);
}

} // namespace

void ExportMovie(const MediaRun& run) {
    ExportMovie(run, Source(run));
}

void ExportMovie(const MediaRun& run, const Source& source) {
    const Container container = ContainerOf(run.options);
    const bool isMp4 = container == Container::Mp4;
    if (run.options.fragmented && !isMp4) {
        throw std::invalid_argument("Only mp4 has fragments: --fragmented needs it");
    }
    if (run.options.output == "-" && run.options.json) {
        throw std::invalid_argument("--json goes to standard output, and so does the file");
    }
    ExportOptions options = source.Options();
    options.container = container;
    options.fragmented = run.options.fragmented;
    if (options.span.first == 0) { // Nothing is recorded in 1970; for the progress.
        Time first = options.span.last;
        for (const TrackKind track : options.tracks) {
            const Span span = source.Records().GetSpan(track);
            first = span.IsEmpty() ? first : std::min(first, span.first);
        }
        options.span.first = first;
    }
    if (run.options.output == "-") {
        ExportToOutput(run, source, options);
    } else {
        ExportToFiles(run, source, options);
    }
}

} // namespace calvane_recording
