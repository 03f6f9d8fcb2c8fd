#include "fleet/FleetSource.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "RecordReader.h"
#include "calvane/recording/RecordingManager.h"
#include "fleet/MessageReader.h"

namespace calvane_fleet {
namespace {

using calvane_recording::Event;
using calvane_recording::InfoMap;
using calvane_recording::IRecords;
using calvane_recording::Losses;
using calvane_recording::Record;
using quarn::calvane::RecordingManager;

constexpr Time kNever = std::numeric_limits<Time>::max();

/// Reads one lane after the other.
class FleetRecords : public IRecords {
public:
    FleetRecords(DeviceStream& stream, std::vector<LaneRange> lanes, const Span& span,
                 const std::function<bool()>& isInterrupted)
        : stream_(stream), isInterrupted_(isInterrupted), lanes_(std::move(lanes)), span_(span) {}

    bool Read(Record& record) override {
        while (next_ < lanes_.size() || reader_ != nullptr) {
            if (isInterrupted_()) {
                throw calvane_recording::Interrupted();
            }
            if (reader_ == nullptr && !OpenNext()) {
                continue;
            }
            const auto message = reader_->Read();
            if (!message || message->head.time >= lane_.end || message->head.time > span_.last) {
                reader_ = nullptr;
                continue;
            }
            if (message->head.kind == MessageKind::Record && message->head.time >= span_.first &&
                Take(*message, record)) {
                return true;
            }
        }
        return false;
    }
    Losses GetLosses() const override { return losses_; }

private:
    bool OpenNext() {
        lane_ = lanes_[next_++];
        if (lane_.begin > span_.last || lane_.last < span_.first) {
            return false;
        }
        const auto first = FindTime(stream_, lane_.subject, lane_.firstMessage, lane_.lastMessage,
                                    std::max(lane_.begin, span_.first));
        if (!first) {
            return false;
        }
        reader_ = std::make_unique<MessageReader>(stream_, lane_.subject, *first);
        number_ = 0;
        return true;
    }

    /// Whether the record is whole.
    bool Take(const StoredMessage& message, Record& record) {
        const MessageHead& head = message.head;
        if (head.partOffset == 0) {
            assembled_ = 0;
        }
        if (head.partOffset != assembled_) {
            return false; // Its begin is not there.
        }
        unsigned char* const bytes = record.SetSize(assembled_ + message.data.size());
        std::copy(message.data.begin(), message.data.end(), bytes + assembled_);
        assembled_ = record.size;
        if (!head.IsLastPart(message.data.size())) {
            return false;
        }
        assembled_ = 0;
        if (head.number <= number_) {
            return false; // It was sent twice.
        }
        losses_.erased += number_ != 0 && head.number != number_ + 1 ? 1 : 0;
        number_ = head.number;
        record.time = head.time;
        record.compositionOffset = head.offset;
        record.isKeyFrame = (head.flags & kKeyFrame) != 0;
        record.isAfterGap = (head.flags & kAfterGap) != 0;
        TakeInfo(head.info);
        record.info = info_;
        return true;
    }

    void TakeInfo(std::uint64_t sequence) {
        if (info_ != nullptr && sequence == infoSequence_) {
            return;
        }
        infoSequence_ = sequence;
        const auto message = sequence != 0 ? stream_.Get(sequence) : std::nullopt;
        auto info = std::make_shared<InfoMap>();
        if (message) {
            RecordingManager::deserializeTrackInfo(message->data, *info);
        }
        if (info_ == nullptr || *info != *info_) {
            info_ = std::move(info);
        }
    }

    DeviceStream& stream_;
    const std::function<bool()>& isInterrupted_; // The source's.
    const std::vector<LaneRange> lanes_;
    const Span span_;
    std::size_t next_ = 0;
    LaneRange lane_;
    std::unique_ptr<MessageReader> reader_;
    std::size_t assembled_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t infoSequence_ = 0;
    std::shared_ptr<const InfoMap> info_;
    Losses losses_;
};

void Add(std::vector<Interval>& to, const Span& span, unsigned int reason) {
    if (span.last <= span.first) {
        return;
    }
    if (!to.empty() && to.back().reason == reason && to.back().span.last == span.first) {
        to.back().span.last = span.last;
    } else {
        to.push_back({span, reason});
    }
}

/// Data from `from` to `to` but for the gaps, which are in the order of their times.
void AddLane(std::vector<Interval>& intervals, Time from, Time to, const std::vector<StoredMessage>& gaps,
             std::uint64_t lane) {
    for (const StoredMessage& gap : gaps) {
        const Time begin = std::max(gap.head.time, from);
        const Time end = std::min(gap.head.last, to);
        if (gap.head.lane == lane && begin < end) {
            Add(intervals, {from, begin}, 0);
            Add(intervals, {begin, end}, gap.head.reason);
            from = end;
        }
    }
    Add(intervals, {from, to}, 0);
}

} // namespace

std::vector<LaneRange> FleetSource::AskLanes(std::optional<TrackKind> track) {
    std::vector<LaneRange> lanes;
    for (const auto& [subject, count] : stream_.GetSubjects(LanesFilter(stream_.Device(), track))) {
        const auto number = LaneOf(subject);
        const auto first = number ? stream_.GetNext(subject, 1) : std::nullopt;
        const auto last = first ? stream_.GetLast(subject) : std::nullopt;
        if (last) {
            const MessagePlace begin{first->sequence, first->head.time};
            const MessagePlace end{last->sequence, last->head.time};
            lanes.push_back({*number, subject, begin, end, begin.time, kNever, end.time,
                             last->head.kind == MessageKind::End, last->head.number});
        }
    }
    for (LaneRange& lane : lanes) {
        for (const LaneRange& other : lanes) {
            lane.end = other.number > lane.number ? std::min(lane.end, other.begin) : lane.end;
        }
        lane.last = std::min(lane.last, lane.end);
    }
    lanes.erase(
        std::remove_if(lanes.begin(), lanes.end(), [](const LaneRange& lane) { return lane.IsEmpty(); }),
        lanes.end());
    std::sort(lanes.begin(), lanes.end(),
              [](const LaneRange& a, const LaneRange& b) { return a.begin < b.begin; });
    return lanes;
}

const std::vector<LaneRange>& FleetSource::GetLanes(std::optional<TrackKind> track) {
    const int key = track ? static_cast<int>(*track) : -1;
    const auto known = lanes_.find(key);
    return known != lanes_.end() ? known->second : lanes_.emplace(key, AskLanes(track)).first->second;
}

Span FleetSource::GetSpan(TrackKind track) {
    const auto& lanes = GetLanes(track);
    return lanes.empty() ? Span{} : Span{lanes.front().begin, lanes.back().last};
}

std::uint64_t FleetSource::GetRecords(TrackKind track) {
    std::uint64_t records = 0;
    for (const LaneRange& lane : GetLanes(track)) {
        records += lane.records;
    }
    return records;
}

std::string FleetSource::GetInfo(TrackKind track) {
    const auto message = stream_.GetLast(InfoSubject(stream_.Device(), track));
    return message ? message->data : "";
}

std::unique_ptr<IRecords> FleetSource::Open(TrackKind track, const Span& span) {
    return std::make_unique<FleetRecords>(stream_, GetLanes(track), span, isInterrupted_);
}

std::optional<FleetSource::KeyFrame> FleetSource::FindKeyFrame(TrackKind track, Time at) {
    return calvane_recording::FindKeyFrameByReading(*this, track, at);
}

std::vector<Interval> FleetSource::GetCoverage(TrackKind track, const Span& span) {
    std::vector<StoredMessage> gaps;
    MessageReader reader(stream_, GapSubject(stream_.Device(), track), 1);
    while (auto gap = reader.Read()) {
        gaps.push_back(std::move(*gap));
    }
    std::sort(gaps.begin(), gaps.end(),
              [](const StoredMessage& a, const StoredMessage& b) { return a.head.time < b.head.time; });
    std::vector<Interval> intervals;
    for (const LaneRange& lane : GetLanes(track)) {
        const Time to = lane.isComplete ? lane.end : lane.last;
        AddLane(intervals, std::max(lane.begin, span.first), std::min(to, span.last), gaps, lane.number);
        if (lane.end != kNever) {
            Add(intervals, {std::max(to, span.first), std::min(lane.end, span.last)}, kNotCopiedYet);
        }
    }
    return intervals;
}

std::vector<Event> FleetSource::GetHistory(const Span& span) {
    std::vector<Event> events;
    for (const LaneRange& lane : GetLanes(std::nullopt)) {
        MessageReader reader(stream_, lane.subject, 1);
        while (const auto message = reader.Read()) {
            const Time time = message->head.time;
            if (message->head.kind != MessageKind::Event || time < span.first || time > span.last ||
                time >= lane.end) {
                continue;
            }
            InfoMap map;
            RecordingManager::deserializeTrackInfo(message->data, map);
            const bool isOfTrack = map[RecordingManager::kHistoryEventType] == "1";
            const std::string track = map[RecordingManager::kTrackType];
            events.push_back(
                {time, isOfTrack,
                 map[isOfTrack ? RecordingManager::kTrackDataPresent : RecordingManager::kRecordingState] ==
                     "1",
                 track.empty() ? 0 : static_cast<unsigned int>(std::stoul(track))});
        }
    }
    return events;
}

} // namespace calvane_fleet
