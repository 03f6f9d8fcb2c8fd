#include "media_export/Export.h"

#include <algorithm>
#include <list>
#include <stdexcept>
#include <string>

#include "media_export/TrackCursor.h"

namespace calvane_export {
namespace {

using calvane_recording::kShortestGap;
using calvane_recording::NameOf;
using calvane_recording::Zone;

std::string AtText(Time time) {
    return TimeText(time, Zone::Utc);
}

/// Whether it is UTF-8 (RFC 3629) without control characters but tabs and line ends.
bool IsText(const Record& record) {
    const unsigned char* at = record.bytes.data();
    const unsigned char* const end = at + record.size;
    while (at != end) {
        const unsigned char lead = *at++;
        if (lead < 0x80) {
            if (lead < 0x20 && lead != '\t' && lead != '\n' && lead != '\r') {
                return false;
            }
            continue;
        }
        const int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
        if (lead < 0xC2 || lead > 0xF4 || end - at < more) {
            return false;
        }
        for (int i = 0; i != more; ++i) {
            if ((*at++ & 0xC0) != 0x80) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

class PartExport::Impl {
public:
    Impl(IRecordSource& source, IOutput& output, const ExportOptions& options,
         const std::optional<Change>& from)
        : source_(source), output_(output), options_(options), from_(from) {
        Open();
        AddStreams();
    }

    Time Begin() const { return part_.begin; }
    std::vector<const calvane_media::CodecInfo*> Codecs() const;
    Part Finish();

private:
    void Open();
    void AddCursor(TrackKind track, const Span& span);
    Time FindBegin() const;
    Time FirstPresentation() const;
    void LeaveOutLateTracks();
    void AddStreams();
    void AddStream(TrackCursor& cursor);
    void AddMetadata(TrackCursor& cursor);
    /// The one whose record comes first; null when all are at their end.
    TrackCursor* Earliest();
    void WriteRecord(TrackCursor& cursor);
    void JoinGap(const TrackCursor& cursor);
    bool IsInSkippedGap(Time time) const;
    bool IsBehindGap(Time time) const;
    Time LongestPause() const;

    IRecordSource& source_;
    IOutput& output_;
    const ExportOptions options_;
    const std::optional<Change> from_;
    std::list<TrackCursor> cursors_;
    std::optional<MovieWriter> writer_;
    std::optional<Time> mediaEnd_; ///< Of video and audio that was written.
    std::array<Time, 3> ends_{};   ///< The same of each track; 0: nothing yet.
    Time end_ = INT64_MAX;         ///< Where a track begins that is not in the file.
    Part part_;
};

/// Where to begin so that the picture at the wanted time can be decoded.
Time PartExport::Impl::FindBegin() const {
    const Time wanted = from_ ? from_->time : options_.span.first;
    if (options_.tracks.count(TrackKind::Video) == 0 || (from_ && from_->track == TrackKind::Video)) {
        return wanted;
    }
    const auto found = from_ ? source_.FindKeyFrame(TrackKind::Video, wanted)
                             : FindKeyFrameShownAt(source_, TrackKind::Video, wanted);
    return found ? found->time : wanted;
}

void PartExport::Impl::AddCursor(TrackKind track, const Span& span) {
    if (options_.tracks.count(track) == 0) {
        return;
    }
    cursors_.emplace_back(track, source_.Open(track, span)); // Also without a record, for what was lost.
    if (track == TrackKind::Video) {
        part_.beforeKeyFrame = cursors_.back().SkipToKeyFrame();
    }
}

void PartExport::Impl::Open() {
    const Time begin = FindBegin();
    AddCursor(TrackKind::Video, {begin, options_.span.last});
    for (const TrackKind track : {TrackKind::Audio, TrackKind::Metadata}) {
        const Time first = options_.longestGap != 0 ? options_.span.first : begin;
        AddCursor(track, {from_ ? from_->time : first, options_.span.last});
    }
    if (options_.longestGap != 0) {
        LeaveOutLateTracks();
    }
    const auto hasRecord = [](const TrackCursor& each) { return each.HasRecord(); };
    if (std::none_of(cursors_.begin(), cursors_.end(), hasRecord)) {
        throw NothingThere("There is nothing to export from " + AtText(options_.span.first) + " to " +
                           AtText(options_.span.last));
    }
}

/// Those of video and audio that are missing at the begin, and all when there is nothing.
void PartExport::Impl::LeaveOutLateTracks() {
    const Time latest = options_.span.first + options_.longestGap;
    cursors_.remove_if([this, latest](const TrackCursor& each) {
        const bool isLate =
            !each.IsMetadata() && each.HasRecord() && each.Current().PresentationTime() > latest;
        if (isLate) {
            end_ = std::min(end_, each.Current().time);
        }
        return isLate;
    });
}

/// The begin of all tracks. In mp4 that of video where sound begins a little earlier, together with its decoding: there edit
/// lists make that part of the sound silent, which elsewhere would move the pictures.
Time PartExport::Impl::FirstPresentation() const {
    Time first = INT64_MAX;
    const Record* video = nullptr;
    for (const TrackCursor& cursor : cursors_) {
        if (cursor.HasRecord()) {
            first = std::min(first, cursor.Current().PresentationTime());
            video = cursor.Track() == TrackKind::Video ? &cursor.Current() : video;
        }
    }
    const bool isTogether = video != nullptr && first >= video->time;
    return isTogether && options_.container == Container::Mp4 ? video->PresentationTime() : first;
}

void PartExport::Impl::AddStreams() {
    part_.begin = FirstPresentation();
    writer_.emplace(
        output_, MovieOptions{options_.container, options_.fragmented, part_.begin, options_.fragmentTime});
    for (TrackCursor& cursor : cursors_) {
        if (!cursor.HasRecord()) {
            continue;
        }
        try {
            cursor.IsMetadata() ? AddMetadata(cursor) : AddStream(cursor);
        } catch (const std::runtime_error& problem) {
            throw std::runtime_error(std::string("The ") + NameOf(cursor.Track()) + " of " +
                                     AtText(cursor.Current().time) +
                                     " cannot be exported: " + problem.what());
        }
    }
    writer_->Begin();
}

void PartExport::Impl::AddStream(TrackCursor& cursor) {
    cursor.TakeCodec();
    cursor.stream = writer_->AddStream(*cursor.Codec());
}

/// With a codec as that; without one as text, if it is some.
void PartExport::Impl::AddMetadata(TrackCursor& cursor) {
    if (cursor.Current().info->count("Codec") != 0) {
        cursor.TakeCodec();
        if (writer_->Supports(cursor.Codec()->parameters->codec_id)) {
            cursor.stream = writer_->AddStream(*cursor.Codec());
        }
    } else if (CanHoldText(options_.container) && IsText(cursor.Current())) {
        cursor.isText = true;
        cursor.stream = writer_->AddTextStream();
    }
}

TrackCursor* PartExport::Impl::Earliest() {
    TrackCursor* earliest = nullptr;
    for (TrackCursor& cursor : cursors_) {
        if (cursor.HasRecord() && (earliest == nullptr || cursor.Current().time < earliest->Current().time)) {
            earliest = &cursor;
        }
    }
    return earliest;
}

Time PartExport::Impl::LongestPause() const {
    Time longest = options_.longestGap != 0 ? options_.longestGap : kShortestGap;
    for (const TrackCursor& cursor : cursors_) {
        if (!cursor.IsMetadata()) {
            longest = std::max(longest, 5 * cursor.NominalDuration());
        }
    }
    return longest;
}

/// Before a record of video or audio is written.
void PartExport::Impl::JoinGap(const TrackCursor& cursor) {
    const Time time = cursor.Current().time;
    if (options_.skipGaps && mediaEnd_ && time - *mediaEnd_ > LongestPause()) {
        writer_->Join(time - *mediaEnd_);
        part_.joined += time - *mediaEnd_;
    }
    mediaEnd_ = std::max(mediaEnd_.value_or(time), time + cursor.Duration());
    ends_.at(static_cast<std::size_t>(cursor.Track())) = time + cursor.Duration();
}

/// Whether a track of the file is missing at that time for longer than it may be.
bool PartExport::Impl::IsBehindGap(Time time) const {
    return options_.longestGap != 0 && std::any_of(ends_.begin(), ends_.end(), [&](Time end) {
               return end != 0 && time - end > LongestPause();
           });
}

/// Whether metadata of that time goes with no video and no audio, and these are not to have a gap.
bool PartExport::Impl::IsInSkippedGap(Time time) const {
    if (!options_.skipGaps || !mediaEnd_ || time <= *mediaEnd_) {
        return false;
    }
    Time next = INT64_MAX;
    for (const TrackCursor& cursor : cursors_) {
        if (!cursor.IsMetadata() && cursor.HasRecord()) {
            next = std::min(next, cursor.Current().time);
        }
    }
    return next - *mediaEnd_ > LongestPause();
}

void PartExport::Impl::WriteRecord(TrackCursor& cursor) {
    const Record& record = cursor.Current();
    const auto track = static_cast<std::size_t>(cursor.Track());
    const bool isUnfit = cursor.isText && (!IsText(record) || record.size > MovieWriter::kLongestText);
    if (!cursor.stream || record.size == 0 || isUnfit ||
        (cursor.IsMetadata() && IsInSkippedGap(record.time))) {
        ++part_.leftOut.at(track);
        return;
    }
    if (!cursor.IsMetadata()) {
        JoinGap(cursor);
    }
    Packet packet;
    packet.stream = *cursor.stream;
    packet.decodeTime = record.time - part_.begin;
    packet.compositionOffset = record.compositionOffset;
    packet.duration = cursor.Duration();
    packet.isKeyFrame = record.isKeyFrame;
    packet.data = record.bytes.data();
    packet.size = record.size;
    cursor.isText ? writer_->WriteText(packet) : writer_->Write(packet);
    ++part_.records.at(track);
    part_.bytes += record.size;
    part_.end = std::max(part_.end, record.time);
}

Part PartExport::Impl::Finish() {
    while (TrackCursor* const cursor = Earliest()) {
        const Time time = cursor->Current().time;
        options_.onRecord(time);
        if (!cursor->IsMetadata() && (time >= end_ || IsBehindGap(time))) {
            break;
        }
        if (!cursor->IsMetadata() && cursor->HasChanged()) {
            part_.change = Change{cursor->Track(), time};
            break;
        }
        WriteRecord(*cursor);
        cursor->Advance();
    }
    writer_->End();
    for (const TrackCursor& cursor : cursors_) {
        part_.losses += cursor.GetLosses();
    }
    if (from_ && part_.change && part_.change->time <= from_->time) {
        throw std::runtime_error(std::string("The ") + NameOf(part_.change->track) +
                                 " changes too often at " + AtText(part_.change->time) + " to be exported");
    }
    return part_;
}

std::vector<const calvane_media::CodecInfo*> PartExport::Impl::Codecs() const {
    std::vector<const calvane_media::CodecInfo*> codecs;
    for (const TrackCursor& cursor : cursors_) {
        if (cursor.stream && !cursor.IsMetadata()) {
            codecs.push_back(cursor.Codec());
        }
    }
    return codecs;
}

PartExport::PartExport(IRecordSource& source, IOutput& output, const ExportOptions& options,
                       const std::optional<Change>& from)
    : impl_(std::make_unique<Impl>(source, output, options, from)) {}

PartExport::~PartExport() = default;

Time PartExport::Begin() const {
    return impl_->Begin();
}

std::vector<const calvane_media::CodecInfo*> PartExport::Codecs() const {
    return impl_->Codecs();
}

Part PartExport::Finish() {
    return impl_->Finish();
}

Part ExportPart(IRecordSource& source, IOutput& output, const ExportOptions& options,
                const std::optional<Change>& from) {
    return PartExport(source, output, options, from).Finish();
}

} // namespace calvane_export
