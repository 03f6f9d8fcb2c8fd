#include <algorithm>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Commands.h"
#include "Progress.h"
#include "Source.h"
#include "media_export/JpegMaker.h"
#include "media_export/OutputFile.h"

namespace calvane_recording {
namespace {

/// 20261121T130000.250000Z.jpg: in UTC, in the basic form of ISO 8601, since not every file system has colons.
std::string FileNameOf(Time time) {
    std::string name = TimeText(time, Zone::Utc);
    for (const char mark : {'-', ':'}) {
        name.erase(std::remove(name.begin(), name.end(), mark), name.end());
    }
    return name + ".jpg";
}

/// Writes the pictures of one video track, the one after the other.
class Thumbnails {
public:
    Thumbnails(const MediaRun& run, IRecordSource& records, Time every)
        : run_(run), records_(records), every_(every) {}

    /// One for each time that has a new picture. Returns when there is no more video up to `span.last`.
    void WriteAll(const Span& span);
    unsigned int Written() const { return written_; }
    const Losses& GetLosses() const { return losses_; }

private:
    bool ReadKeyFrame(Time from, Time to, Record& record);
    void WritePicture(const Record& record);

    const MediaRun& run_;
    IRecordSource& records_;
    const Time every_;
    unsigned int written_ = 0;
    Losses losses_;
};

/// The first key frame of a span.
bool Thumbnails::ReadKeyFrame(Time from, Time to, Record& record) {
    const auto records = records_.Open(TrackKind::Video, {from, to});
    bool found = false;
    while (!found && records->Read(record)) {
        found = record.isKeyFrame;
    }
    losses_ += records->GetLosses();
    return found;
}

void Thumbnails::WritePicture(const Record& record) {
    const std::string path = run_.options.output + "/" + FileNameOf(record.PresentationTime());
    if (!run_.options.force && std::filesystem::exists(path)) {
        return; // The same picture.
    }
    try {
        const auto jpeg = calvane_export::MakeJpeg(record, run_.options.width);
        calvane_export::OutputFile file(path, run_.options.force);
        file.Write(jpeg.data(), jpeg.size());
        file.Keep();
    } catch (const std::system_error&) {
        throw;
    } catch (const std::runtime_error& problem) {
        throw std::runtime_error("The video of " + TimeText(record.time, Zone::Utc) +
                                 " cannot become a picture: " + problem.what());
    }
    ++written_;
}

void Thumbnails::WriteAll(const Span& span) {
    Progress progress(span);
    Record record;
    std::optional<Time> last;
    for (Time at = span.first; at <= span.last && !run_.isInterrupted; at += every_) {
        progress.Show(at);
        auto key = FindKeyFrameShownAt(records_, TrackKind::Video, at);
        const bool isNew = key && (!last || key->time > *last);
        if (isNew ? !ReadKeyFrame(key->time, key->time, record)
                  : !ReadKeyFrame(std::max(at, last.value_or(at) + 1), span.last, record)) {
            return;
        }
        if (!isNew) { // Over a gap, or over pictures that are further apart, to the time that shows the next one.
            at += (std::max(record.PresentationTime(), at) - at) / every_ * every_;
        }
        WritePicture(record);
        last = record.time;
    }
    if (run_.isInterrupted) {
        throw std::runtime_error("Interrupted");
    }
}

} // namespace

void WriteThumbnails(const MediaRun& run) {
    const Time every = ParseDuration(run.options.every);
    if (every < kSecond / 10) {
        throw std::invalid_argument("Not a time between pictures: \"" + run.options.every +
                                    "\" is less than 100 ms");
    }
    const Source source(run);
    Span span = source.Options().span;
    const Span video = source.Records().GetSpan(TrackKind::Video);
    span = {std::max(span.first, video.first), std::min(span.last, video.last)};
    if (video.IsEmpty() || span.last < span.first) {
        throw std::runtime_error("There is no video at that time");
    }
    std::filesystem::create_directories(run.options.output);
    Thumbnails thumbnails(run, source.Records(), every);
    thumbnails.WriteAll(span);
    std::cout << thumbnails.Written() << " pictures written to " << run.options.output << "\n";
    RequireWhole(thumbnails.GetLosses());
}

} // namespace calvane_recording
