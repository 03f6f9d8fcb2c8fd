#include "record_source/RecordSource.h"

#include <stdexcept>

namespace calvane_recording {
namespace {

/// How far the first look for a key frame goes back; each further one goes four times as far.
constexpr Time kFirstLook = 2 * kSecond;

} // namespace

const char* NameOf(TrackKind track) {
    switch (track) {
        case TrackKind::Video:
            return "video";
        case TrackKind::Audio:
            return "audio";
        default:
            return "metadata";
    }
}

TrackKind ParseTrack(const std::string& name) {
    for (const TrackKind track : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
        if (name == NameOf(track)) {
            return track;
        }
    }
    throw std::invalid_argument("Not a track: \"" + name + "\" (video, audio or metadata)");
}

unsigned char* Record::SetSize(std::size_t length) {
    size = length;
    bytes.resize(length + kPadding);
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(length), kPadding, static_cast<unsigned char>(0));
    return bytes.data();
}

Losses& Losses::operator+=(const Losses& other) {
    unreadable += other.unreadable;
    erased += other.erased;
    return *this;
}

std::optional<IRecordSource::KeyFrame> FindKeyFrameByReading(IRecordSource& source, TrackKind track,
                                                             Time at) {
    const Span all = source.GetSpan(track);
    Time end = std::min(at, all.last);
    const Time earliest = std::max(all.first, end - kFarthestKeyFrame);
    std::optional<IRecordSource::KeyFrame> found;
    std::optional<Time> goesOnUntil; // From the last record on.
    Record record;
    for (Time look = kFirstLook; !found && !all.IsEmpty() && end >= earliest; look *= 4) {
        const Time begin = std::max(earliest, end - look);
        const auto records = source.Open(track, {begin, end});
        Time last = 0;
        Time interval = 0;
        while (records->Read(record)) {
            if (record.isKeyFrame) {
                found = IRecordSource::KeyFrame{record.time, record.PresentationTime(), 0};
            }
            interval = last != 0 ? record.time - last : 0;
            last = record.time;
        }
        if (last != 0 && !goesOnUntil) {
            goesOnUntil = GapAfter(last, interval);
        }
        end = begin - 1;
    }
    if (found) {
        found->goesOnUntil = *goesOnUntil;
    }
    return found;
}

std::optional<IRecordSource::KeyFrame> FindKeyFrameShownAt(IRecordSource& source, TrackKind track, Time at) {
    auto found = source.FindKeyFrame(track, at);
    if (found && found->goesOnUntil < at) {
        return std::nullopt;
    }
    while (found && found->presentationTime > at) {
        found = source.FindKeyFrame(track, found->time - 1);
    }
    return found;
}

} // namespace calvane_recording
