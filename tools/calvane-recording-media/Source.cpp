#include "Source.h"

#include <stdexcept>

#include "RecordReader.h"
#include "RecordingClient.h"
#include "record_source/CardSource.h"
#include "record_source/ServiceSource.h"

namespace calvane_recording {

Source::Source(const MediaRun& run)
    : run_(run), span_(ParseSpan(run.options.from, run.options.to, run.zone)) {
    if (run.options.card.empty()) {
        client_ = std::make_unique<RecordingClient>();
        records_ = std::make_unique<ServiceSource>(*client_, [&run] { return run.isInterrupted.load(); });
    } else {
        records_ = std::make_unique<CardSource>(run.options.card, run.options.device);
    }
    used_ = records_.get();
}

Source::Source(const MediaRun& run, IRecordSource& records)
    : run_(run), span_(ParseSpan(run.options.from, run.options.to, run.zone)), used_(&records) {}

Source::~Source() = default;

calvane_export::ExportOptions Source::Options() const {
    calvane_export::ExportOptions options;
    options.span = span_;
    options.skipGaps = run_.options.gaps == "skip";
    if (!run_.options.tracks.empty()) {
        options.tracks.clear();
        for (const std::string& name : run_.options.tracks) {
            options.tracks.insert(ParseTrack(name));
        }
    }
    options.onRecord = [&run = run_](Time) {
        if (run.isInterrupted) {
            throw Interrupted();
        }
    };
    return options;
}

void RequireWhole(const Losses& losses) {
    if (losses.unreadable != 0) {
        throw std::runtime_error(std::to_string(losses.unreadable) +
                                 " records are damaged on the card and were left out");
    }
    if (losses.erased != 0) {
        throw std::runtime_error("Not all of the data was there any more");
    }
}

} // namespace calvane_recording
