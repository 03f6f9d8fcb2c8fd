// Where a track goes on, as its stream tells it.
#include "TrackSender.h"

#include <utility>

namespace calvane_uplink {

using calvane_fleet::MessageKind;

void TrackSender::Resume() {
    lanes_.clear();
    newestLane_ = stream_.NewestLane(calvane_fleet::LanesFilter(stream_.Device(), track_));
    if (newestLane_ == 0) {
        return;
    }
    const auto first = stream_.GetNext(Subject(newestLane_), 1);
    if (first) {
        for (const calvane_fleet::OpenLane& open : first->head.open) {
            if (auto lane = LoadLane(open.lane, open.end)) {
                lanes_.push_back(std::move(*lane));
            }
        }
    }
    if (auto live = LoadLane(newestLane_, kNever)) {
        figures_.sentUpTo = live->sentUpTo;
        lanes_.push_back(std::move(*live));
    }
    const auto gap = stream_.GetLast(calvane_fleet::GapSubject(stream_.Device(), track_));
    for (Lane& lane : lanes_) {
        lane.gapUpTo = gap && gap->head.lane == lane.number ? gap->head.last : 0;
        TakeInfo(lane);
    }
}

/// Nothing if the lane is complete, or the stream has discarded all of it.
std::optional<TrackSender::Lane> TrackSender::LoadLane(std::uint64_t number, Time end) {
    Lane lane;
    lane.number = number;
    lane.end = end;
    const auto last = stream_.GetLast(Subject(lane.number));
    if (!last || last->head.kind == MessageKind::End) {
        return std::nullopt;
    }
    const MessageHead& head = last->head;
    const auto first = stream_.GetNext(Subject(number), 1);
    lane.card = first && first->head.kind == MessageKind::Begin ? first->head.card : 0;
    lane.hasBegun = true;
    lane.begin = lane.sentUpTo = head.time;
    lane.records = head.number;
    lane.info = head.info;
    lane.at.time = head.time;
    if (head.kind == MessageKind::Begin) {
        --lane.at.time;
    } else if (head.IsLastPart(last->data.size())) {
        const bool isWhole = head.partTotal == 0;
        lane.at = {head.time, true, head.same, isWhole ? HashOf(last->data.data(), last->data.size()) : 0};
    } else { // The record is read again from the card.
        lane.at = head.same != 0 ? Position{head.time, true, head.same - 1, 0} : Position{head.time - 1};
        lane.partTime = head.time;
        lane.partOf = head.partOffset + last->data.size();
        lane.partTotal = head.partTotal;
        --lane.records;
    }
    return lane;
}

/// The text that the lane's last record refers to.
void TrackSender::TakeInfo(Lane& lane) const {
    const auto message = lane.info != 0 ? stream_.Get(lane.info) : std::nullopt;
    if (message && message->head.kind == MessageKind::Info) {
        lane.infoText = message->data;
        lane.infoTime = message->head.time;
    } else {
        lane.info = 0;
    }
}

/// The last record of a lane or of those before it that the card has, too.
std::optional<Position> TrackSender::FindLastCommonOfAny(std::uint64_t lane) {
    std::optional<Position> common;
    for (std::uint64_t older = 0; !common && older < kMostLanes && older < lane; ++older) {
        common = FindLastCommon(lane - older);
    }
    return common;
}

/// By binary search: what the card has not lies behind what it has, but for what it has erased from its begin on.
std::optional<Position> TrackSender::FindLastCommon(std::uint64_t lane) {
    const std::string subject = Subject(lane);
    const calvane_fleet::StreamState state = stream_.GetState();
    std::uint64_t low = state.firstSequence;
    std::uint64_t high = state.lastSequence + 1;
    std::optional<Position> common;
    while (low < high) {
        const std::uint64_t middle = low + (high - low) / 2;
        const auto message = stream_.GetNext(subject, middle);
        if (!message || message->sequence >= high) {
            high = middle;
            continue;
        }
        const MessageHead& head = message->head;
        const bool isWhole = head.kind == MessageKind::Record && head.partTotal == 0;
        const Position record{head.time, true, head.same, HashOf(message->data.data(), message->data.size())};
        const bool wasErased = head.time < card_.first;
        if (!isWhole || wasErased || recorder_.Has(track_, record)) {
            common = isWhole && !wasErased ? record : common;
            low = message->sequence + 1;
        } else {
            high = middle;
        }
    }
    return common;
}

} // namespace calvane_uplink
