#include "StampLine.h"

#include <algorithm>

namespace calvane_media {

namespace {

/// Muxers get it wrong by some packets; more is a stream that begins anew.
constexpr std::int64_t kMostBackward = 300'000;

} // namespace

void StampLine::Restart() {
    streams_.clear();
    restarts_ = true;
}

StampLine::Stamp StampLine::Next(int index, std::optional<std::int64_t> stamp, std::int64_t duration) {
    const auto [found, isNew] = streams_.try_emplace(index);
    Stream& stream = found->second;
    if (!stamp) {
        stamp = isNew ? end_ - shift_ : stream.end - stream.shift;
    }
    bool jumped = false;
    if (isNew) {
        if (restarts_) { // So late that no stream begins before the end of the last round.
            shift_ = end_ + lead_ - *stamp;
            firstStamp_ = end_ + lead_;
            lead_ = 0;
            restarts_ = false;
        }
        stream.shift = shift_;
        lead_ = std::max(lead_, firstStamp_ - (*stamp + shift_));
    } else if (!GoesOn(stream, *stamp + stream.shift)) {
        jumped = true;
        if (!GoesOn(stream, *stamp + shift_)) {
            shift_ = end_ - *stamp;
        }
        stream.shift = shift_;
    }
    stream.last = *stamp + stream.shift;
    stream.end = stream.last + std::max<std::int64_t>(duration, 0);
    end_ = std::max(end_, stream.end);
    return {stream.last, stream.shift, jumped};
}

bool StampLine::GoesOn(const Stream& stream, std::int64_t shifted) const {
    return shifted - stream.last > -kMostBackward && shifted - stream.last <= mostForward_;
}

} // namespace calvane_media
