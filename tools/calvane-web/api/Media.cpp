#include "api/Media.h"

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "Answers.h"
#include "RecordReader.h"
#include "api/CodecText.h"
#include "api/Replies.h"
#include "api/Tracks.h"
#include "media_export/Export.h"
#include "media_export/JpegMaker.h"

namespace calvane_web {
namespace {

using namespace calvane_recording;
using calvane_export::Container;
using calvane_export::ExportOptions;

constexpr Time kDefaultLength = 30 * kSecond;
constexpr Time kLongestGap = kSecond;
constexpr Time kFragmentTime = kSecond / 2;
constexpr Time kOldestPicture = 60 * kSecond;
/// What a file has before the answer begins.
constexpr std::size_t kMostAhead = std::size_t{1024} * 1024;

/// A file of the answer: until that has begun, its bytes wait.
class AnswerOutput : public calvane_export::IOutput {
public:
    void Write(const std::uint8_t* bytes, std::size_t length) override {
        if (sink_ != nullptr) {
            sink_->Write(bytes, length);
            return;
        }
        if (ahead_.size() + length > kMostAhead) {
            throw std::runtime_error("The head of the file is too long");
        }
        ahead_.insert(ahead_.end(), bytes, bytes + length);
    }
    void BeginWith(IBodySink& sink) {
        sink_ = &sink;
        sink.Write(ahead_.data(), ahead_.size());
        ahead_ = {};
    }

private:
    std::vector<std::uint8_t> ahead_;
    IBodySink* sink_ = nullptr;
};

/// When there is data next, behind `from`.
std::optional<Time> FindNext(IMediaSource& source, Time from) {
    std::optional<Time> next;
    const Time now = Now();
    if (from >= now) {
        return next;
    }
    for (const TrackKind track : {TrackKind::Video, TrackKind::Audio}) {
        source.ForEachInterval(track, {from, now}, [&](const Interval& interval) {
            const bool isNext = interval.reason == 0 && interval.span.first > from;
            next = isNext ? std::min(next.value_or(INT64_MAX), interval.span.first) : next;
            return !isNext;
        });
    }
    return next;
}

/// When a track goes on, if `at` is in a gap of it that is too long for a file; nothing if there is data, or if none follows.
std::optional<Time> FindEndOfGap(IMediaSource& source, TrackKind track, Time at) {
    std::optional<Time> next;
    Time before = INT64_MIN;
    const Span wanted{at - kLongestGap, std::max(at, Now())};
    source.ForEachInterval(track, wanted, [&](const Interval& interval) {
        if (interval.reason != 0) {
            return true;
        }
        if (interval.span.first <= at) {
            before = interval.span.last;
            return before < at;
        }
        if (before < wanted.first || interval.span.first - before > kLongestGap) {
            next = interval.span.first;
        }
        return false;
    });
    return next;
}

/// The same of all tracks that are played: that of video where sound goes on together with it.
std::optional<Time> FindEndOfGap(IMediaSource& source, const std::set<TrackKind>& tracks, Time at) {
    std::optional<Time> next;
    for (const TrackKind track : tracks) { // Video first.
        if (track == TrackKind::Metadata) {
            continue;
        }
        const auto end = FindEndOfGap(source, track, at);
        if (!end) {
            return std::nullopt;
        }
        next = !next || *end < *next - kLongestGap ? end : next;
    }
    return next;
}

/// "camera_20261121T130000Z.mp4"
std::string FileName(const std::string& name, Time time, Container container) {
    std::string moment = TimeText(time, Zone::Utc).substr(0, 19) + "Z";
    for (const char mark : {'-', ':'}) {
        moment.erase(std::remove(moment.begin(), moment.end(), mark), moment.end());
    }
    return name + "_" + moment + "." + NameOf(container);
}

std::string TypeOf(Container container) {
    switch (container) {
        case Container::Mp4:
            return "video/mp4";
        case Container::Matroska:
            return "video/x-matroska";
        case Container::MpegTs:
            return "video/mp2t";
    }
    return "application/octet-stream";
}

std::string ToText(const Time time) {
    return TimeText(time, Zone::Utc);
}

/// The answer where there is nothing, and when there is something next.
Reply NothingReply(const std::string& reason, const std::optional<Time>& next) {
    return JsonReply({{"error", reason}, {"next", next ? ToJson(*next) : nlohmann::json(nullptr)}}, 404);
}

} // namespace

/// An answer that is being written, with what it reads from.
class Media::Job {
public:
    explicit Job(const MediaChoice& choice) : source_(choice.open()) {}

    void Begin(const ExportOptions& options) { file_.emplace(source_->Records(), output_, options); }
    const calvane_export::PartExport& File() const { return *file_; }
    IMediaSource& Source() { return *source_; }

    /// A file for a player may lack what cannot be read; it goes on behind it.
    void WriteTo(IBodySink& sink, bool mustBeWhole) {
        output_.BeginWith(sink);
        const calvane_export::Part part = file_->Finish();
        if (!mustBeWhole) {
            return;
        }
        if (part.losses.unreadable != 0 || part.losses.erased != 0) {
            throw std::runtime_error("Some of the data is damaged, or was erased before it could be read");
        }
        if (part.change) {
            throw std::runtime_error(std::string("The ") + NameOf(part.change->track) + " changes at " +
                                     ToText(part.change->time) + ", which needs another file");
        }
    }

private:
    const std::unique_ptr<IMediaSource> source_;
    AnswerOutput output_;
    std::optional<calvane_export::PartExport> file_;
};

MediaChoice Media::Choose(const Client& client, Query& query) {
    return sources_.Choose(query, client, [this] { return isStopped_.load(); });
}

Reply Media::Stream(const std::shared_ptr<Job>& job, const ExportOptions& options, bool mustBeWhole) {
    try {
        job->Begin(options);
    } catch (const calvane_export::NothingThere& problem) {
        return NothingReply(problem.what(), FindNext(job->Source(), options.span.first));
    }
    Reply reply;
    reply.type = TypeOf(options.container);
    reply.headers = {{"Cache-Control", "no-store"}};
    reply.write = [job, mustBeWhole](IBodySink& sink) { job->WriteTo(sink, mustBeWhole); };
    return reply;
}

Reply Media::AnswerMedia(const Client& client, Query& query) {
    const Time now = Now();
    const MediaChoice choice = Choose(client, query);
    ExportOptions options;
    options.span.first = query.TakeTime("from", "now", now);
    options.span.last = query.Has("to") ? query.TakeTime("to", "", now) : options.span.first + kDefaultLength;
    options.tracks = TakeTracks(query, "video,audio");
    query.RequireAllTaken();
    RequireOrder(options.span);
    options.fragmented = true;
    options.longestGap = kLongestGap;
    options.fragmentTime = kFragmentTime;
    const auto job = std::make_shared<Job>(choice);
    if (const auto next = FindEndOfGap(job->Source(), options.tracks, options.span.first)) {
        if (*next > options.span.last) {
            return NothingReply("There is nothing recorded at " + ToText(options.span.first), *next);
        }
        options.span.first = *next; // What was recorded last before the gap is not what was asked for.
    }
    Reply reply = Stream(job, options, false);
    if (reply.write) {
        reply.headers.emplace("X-Calvane-Begin", ToText(job->File().Begin()));
        if (const std::string mime = MimeText(job->File().Codecs()); !mime.empty()) {
            reply.headers.emplace("X-Calvane-Mime", mime);
        }
    }
    return reply;
}

Reply Media::AnswerExport(const Client& client, Query& query) {
    const Time now = Now();
    const MediaChoice choice = Choose(client, query);
    ExportOptions options;
    options.span.first = query.TakeTime("from", "", now);
    options.span.last = query.TakeTime("to", "now", now);
    options.container = calvane_export::ParseContainer(query.TakeOr("container", "mp4"));
    const std::string gaps = query.TakeOr("gaps", "keep");
    query.RequireAllTaken();
    RequireOrder(options.span);
    if (gaps != "keep" && gaps != "skip") {
        throw std::invalid_argument("gaps: neither keep nor skip: \"" + gaps + "\"");
    }
    options.skipGaps = gaps == "skip";
    const auto job = std::make_shared<Job>(choice);
    Reply reply = Stream(job, options, true);
    if (reply.write) {
        reply.headers.emplace(
            "Content-Disposition",
            "attachment; filename=\"" + FileName(choice.name, job->File().Begin(), options.container) + "\"");
    }
    return reply;
}

Reply Media::AnswerThumbnail(const Client& client, Query& query) {
    const MediaChoice choice = Choose(client, query);
    const Time at = query.TakeTime("at", "now", Now());
    const auto width = static_cast<int>(query.TakeNumber("width", 16, 1920, 160));
    query.RequireAllTaken();
    const auto opened = choice.open();
    calvane_recording::IRecordSource& source = opened->Records();
    auto key = source.FindKeyFrame(TrackKind::Video, at);
    while (key && key->presentationTime > at) {
        key = source.FindKeyFrame(TrackKind::Video, key->time - 1);
    }
    Record record;
    if (!key || at - key->presentationTime > kOldestPicture ||
        !source.Open(TrackKind::Video, {key->time, key->time})->Read(record)) {
        return ErrorReply(404, "There is no video at " + ToText(at) + ", nor in the minute before");
    }
    // What is recorded later may have a nearer picture.
    const bool isFinal = at <= source.GetSpan(TrackKind::Video).last;
    const std::lock_guard<std::mutex> lock(decoding_);
    const auto jpeg = calvane_export::MakeJpeg(record, width);
    Reply reply;
    reply.type = "image/jpeg";
    reply.body.assign(jpeg.begin(), jpeg.end());
    reply.headers = {{"Cache-Control", isFinal ? "private, max-age=86400, immutable" : "no-store"},
                     {"X-Calvane-Time", ToText(key->presentationTime)}};
    return reply;
}

} // namespace calvane_web
