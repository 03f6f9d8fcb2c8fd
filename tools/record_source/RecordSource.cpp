#include "record_source/RecordSource.h"

#include <stdexcept>

namespace calvane_recording {

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
