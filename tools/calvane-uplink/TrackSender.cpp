#include "TrackSender.h"

#include <algorithm>
#include <utility>

#include "quarn/core/Logger.h"

namespace calvane_uplink {
namespace {

using calvane_fleet::MessageKind;
using calvane_recording::kSecond;

/// The newest lane may lie so far behind the card before another one is opened.
constexpr Time kMostLag = 3 * kSecond / 2;
/// Where a key frame is looked for to begin a lane with.
constexpr Time kKeyFrameLook = 4 * kSecond;
/// Time without a record about which the coverage is asked.
constexpr Time kShortestGap = 2 * kSecond;
/// The info text is repeated, so that a stream that discards old messages has one for nearly all records.
constexpr Time kInfoEvery = 300 * kSecond;
// Reasons that the recorder's coverage has.
constexpr unsigned int kErasedForAge = 3;
constexpr unsigned int kUnknown = 6;
constexpr auto kLostPause = std::chrono::seconds(1);
constexpr auto kLookEvery = std::chrono::milliseconds(150);
/// Where the card's last record is of the time that was sent last, another one of that time may have come.
constexpr auto kLookForSameTimeEvery = std::chrono::seconds(1);

quarn::core::Logger& Log() {
    static quarn::core::Logger& logger = *quarn::core::Logger::GetLogger("Uplink");
    return logger;
}

/// The time of `text` in a message for the log.
std::string At(Time time) {
    return calvane_recording::TimeText(time, calvane_recording::Zone::Utc);
}

/// Should another record be found there later on, the clock was set back meanwhile.
Position InFrontOf(const CardRecord& record) {
    Position at{record.time - 1};
    at.next = HashOf(record.payload.data(), record.payload.size());
    return at;
}

} // namespace

TrackSender::TrackSender(calvane_fleet::DeviceStream& stream, std::function<bool()> isInterrupted,
                         TrackKind track, const TrackPolicy& policy, std::shared_ptr<TopicListener> topic,
                         bool newestFirst)
    : stream_(stream),
      track_(track),
      newestFirst_(newestFirst),
      recorder_(std::move(isInterrupted)),
      selection_(policy, std::move(topic)) {}

std::string TrackSender::Subject(std::uint64_t lane) const {
    return calvane_fleet::LaneSubject(stream_.Device(), track_, lane);
}

/// What older lanes have from `begin` on belongs to a lane that begins there.
void TrackSender::CloseLanesAt(Time begin) {
    for (Lane& lane : lanes_) {
        lane.end = std::min(lane.end, begin);
        lane.reader.reset();
    }
    lanes_.remove_if([begin](const Lane& lane) { return lane.begin >= begin || lane.at.time >= begin; });
}

/// In front of the card's first record behind a time, if there is one.
std::optional<Position> TrackSender::FindNext(Time behind) {
    const auto next = recorder_.Open(track_, {behind}, card_.last)->Read();
    return next ? std::optional(InFrontOf(*next)) : std::nullopt;
}

/// Right behind a position.
TrackSender::Lane& TrackSender::OpenLane(const Position& at, std::uint64_t card) {
    const Time begin = at.time + 1;
    CloseLanesAt(begin);
    lastLook_ = {};
    selection_.LookAgain(); // Where the clock was set back, events are recorded anew, too.
    Lane lane;
    lane.number = ++newestLane_;
    lane.begin = lane.sentUpTo = begin;
    lane.end = kNever;
    lane.card = card;
    lane.at = at;
    lanes_.push_back(std::move(lane));
    return lanes_.back();
}

/// Of all lanes that have none yet, up to this one.
void TrackSender::SendBegins(Link& link, const Lane& last) {
    MessageHead head;
    head.kind = MessageKind::Begin;
    for (Lane& lane : lanes_) {
        if (!lane.hasBegun) {
            head.time = lane.begin;
            head.card = lane.card;
            link.Send(Subject(lane.number), head, nullptr, 0);
            lane.hasBegun = true;
        }
        if (&lane == &last) {
            return;
        }
        head.open.push_back({lane.number, lane.end});
    }
}

void TrackSender::EndLane(Link& link, Lane& lane) {
    CardRecord end;
    end.time = lane.end;
    SendGaps(link, lane, end);
    MessageHead head;
    head.kind = MessageKind::End;
    head.time = lane.end;
    head.number = lane.records;
    link.Send(Subject(lane.number), head, nullptr, 0);
}

bool TrackSender::SendLive(Link& link, std::size_t budget) {
    if (lanes_.empty() || lanes_.back().reader == nullptr) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastLook_ < kLookEvery) {
            return false;
        }
        lastLook_ = now;
        card_ = recorder_.GetSpan(track_);
        if (card_.IsEmpty()) {
            return false;
        }
        figures_.cardUpTo = card_.last;
        ForgetEvents(link);
        if (lanes_.empty()) {
            const std::uint64_t card = recorder_.GetCard();
            const auto begin = FindNext(-1);
            if (!begin) {
                return false;
            }
            OpenLane(*begin, card);
        }
        const Lane& live = lanes_.back();
        if (live.at.isBehindRecord && card_.last == live.at.time && now - lastRead_ < kLookForSameTimeEvery) {
            return false;
        }
        lastRead_ = now;
    }
    return SendSome(link, lanes_.back(), budget) == Progress::More;
}

bool TrackSender::SendBacklog(Link& link, std::size_t budget) {
    if (lanes_.size() < 2) {
        return false;
    }
    const auto live = std::prev(lanes_.end());
    auto newest = live;
    for (auto lane = lanes_.begin(); lane != live;) {
        if (lane->isAllSent && live->hasBegun) { // Until then it tells where to go on.
            EndLane(link, *lane);
            lane = lanes_.erase(lane);
            continue;
        }
        newest = !lane->isAllSent && (newest == live || lane->begin > newest->begin) ? lane : newest;
        ++lane;
    }
    if (newest == live) {
        return false;
    }
    const Progress progress = SendSome(link, *newest, budget);
    if (progress == Progress::AllSent) { // Else it may be closed, for another one that takes its place.
        newest->isAllSent = true;
    }
    return progress != Progress::Waiting;
}

/// Up to what the card has now, or the lane's end.
void TrackSender::OpenReader(Lane& lane) {
    selection_.Update(recorder_, lane.at.time);
    const Time last =
        lane.end == kNever ? LiveEnd() : std::min(lane.end - 1, selection_.Horizon(calvane_recording::Now()));
    // There was a record behind it.
    if (lane.end == kNever && !lane.at.isBehindRecord && card_.last <= lane.at.time) {
        throw CardReader::PositionLost();
    }
    if (last > lane.at.time || lane.at.isBehindRecord) {
        lane.reader = recorder_.Open(track_, lane.at, std::max(last, lane.at.time));
    }
}

TrackSender::Progress TrackSender::SendSome(Link& link, Lane& lane, std::size_t budget) {
    try {
        return SendFromReader(link, lane, budget);
    } catch (const CardReader::PositionLost&) {
        lane.reader.reset();
        FindPosition(link, lane);
        return Progress::Waiting;
    } catch (const RecorderError&) {
        lane.reader.reset();
        throw;
    }
}

TrackSender::Progress TrackSender::SendFromReader(Link& link, Lane& lane, std::size_t budget) {
    bool isFirst = lane.reader == nullptr;
    if (isFirst) {
        OpenReader(lane);
    }
    for (std::size_t sent = 0; lane.reader != nullptr && sent < budget; isFirst = false) {
        const auto record = lane.reader->Read();
        if (!record) {
            lane.reader.reset();
            lane.isAtLiveEdge = false;
            break;
        }
        if (isFirst && IsBehind(lane, *record)) {
            const std::uint64_t card = recorder_.GetCard();
            if (const auto begin = FindLiveBegin()) {
                OpenLane(*begin, card).isAtLiveEdge = true;
                return Progress::More;
            }
        }
        if (record->isBehindErased && lane.at.isBehindRecord && !recorder_.Has(track_, lane.at)) {
            throw CardReader::PositionLost(); // Else what is recorded anew would follow what was erased.
        }
        SendRecord(link, lane, *record);
        sent += record->payload.size() + 1;
    }
    if (lane.reader != nullptr) {
        return Progress::More;
    }
    const bool isDecided = lane.end != kNever && selection_.Horizon(calvane_recording::Now()) >= lane.end - 1;
    return isDecided ? Progress::AllSent : Progress::Waiting;
}

/// Whether the newest lane had better begin anew.
bool TrackSender::IsBehind(const Lane& lane, const CardRecord& record) const {
    return newestFirst_ && &lane == &lanes_.back() && !lane.isAtLiveEdge && lanes_.size() < kMostLanes &&
           LiveEnd() - record.time > kMostLag;
}

/// Up to there can be sent what the card has.
Time TrackSender::LiveEnd() const {
    return std::min(card_.last, selection_.Horizon(calvane_recording::Now()));
}

/// In front of the last key frame that can be sent, or of the last record.
std::optional<Position> TrackSender::FindLiveBegin() {
    card_ = recorder_.GetSpan(track_);
    const Time end = LiveEnd();
    std::optional<Position> begin;
    Position next; // In front of all records of a time.
    bool isAtKeyFrame = false;
    const auto reader = recorder_.Open(track_, {std::max<Time>(end - kKeyFrameLook, -1)}, end);
    while (const auto record = reader->Read()) {
        next = record->same == 0 ? InFrontOf(*record) : next;
        const bool isKeyFrame = track_ == TrackKind::Video && (record->flags & calvane_fleet::kKeyFrame) != 0;
        if (isKeyFrame || !isAtKeyFrame) {
            begin = next;
        }
        isAtKeyFrame = isAtKeyFrame || isKeyFrame;
    }
    return begin;
}

/// The record behind which the lane goes on is not on the card. It was erased for its age or for space; or the recorder was
/// killed before it was safe; or the clock was set back, and the recorder has erased what was later; or the card is another
/// one. What the card and the stream both have tells, and where they have nothing in common, the card's identity.
void TrackSender::FindPosition(Link& link, Lane& lane) {
    const bool isLive = &lane == &lanes_.back();
    if (isLive) {
        lastLook_ = std::chrono::steady_clock::now() + kLostPause;
    }
    const std::uint64_t card = recorder_.GetCard();
    card_ = recorder_.GetSpan(track_);
    const Time lost = lane.at.time;
    if (card_.IsEmpty() || card != recorder_.GetCard()) {
        return;
    }
    const bool isOther = lane.card != 0 && lane.card != card;
    if (isLive && isOther) {
        GoOnOnOtherCard(lost, card);
        return;
    }
    if (card_.first > lost) {
        lane.at = {lost};
        lane.isBehindErased = true;
        return;
    }
    link.WaitUntilStored(); // What was sent is looked for in the stream.
    const auto common = isOther ? std::nullopt : FindLastCommonOfAny(lane.number);
    if (!common && !isLive) {
        lane.at = {lost}; // What the lane lacks is on another card, or gone.
        return;
    }
    if (!common && lane.card != card) {
        GoOnOnOtherCard(lost, card);
        return;
    }
    if (!common) {
        if (const auto begin = FindNext(-1)) {
            Log().Information("All of %s was recorded anew, since the clock was set back", NameOf(track_));
            OpenLane(*begin, card);
        }
        return;
    }
    std::optional<CardRecord> next;
    try {
        next = recorder_.Open(track_, *common, card_.last)->Read();
    } catch (const CardReader::PositionLost&) {
        return; // It has just been erased as well, by the first record that another track has of the new time. Later again.
    }
    if (!next) {
        return; // Nothing was recorded since then. What comes decides.
    }
    if (next->time > lost) {
        lane.at = InFrontOf(*next); // What was lost in a last second is in the stream alone.
        return;
    }
    Log().Information("What was recorded of %s from %s on was recorded anew, since the clock was set back",
                      NameOf(track_), At(next->time).c_str());
    OpenLane(*common, card);
}

/// What another card has of the time before `lost` would take the place of what the stream has of it, so it stays there. If the
/// clock is behind that time, what was sent behind the clock was dated by one that was ahead, and gives way.
void TrackSender::GoOnOnOtherCard(Time lost, std::uint64_t card) {
    const bool isAhead = calvane_recording::Now() < lost;
    if (card_.last <= lost && !isAhead) {
        return; // Until it has something.
    }
    const auto begin = isAhead ? FindLiveBegin() : FindNext(lost);
    if (!begin) {
        return;
    }
    if (card_.first <= begin->time) {
        Log().Warning(
            "What another card has of %s from %s to %s is not sent, since the stream has another card's",
            NameOf(track_), At(card_.first).c_str(), At(begin->time + 1).c_str());
    }
    OpenLane(*begin, card);
}

void TrackSender::SendRecord(Link& link, Lane& lane, const CardRecord& record) {
    const bool isInTime = selection_.WantsTime(record.time);
    lane.hasSkipped = lane.hasSkipped || !isInTime;
    if (isInTime && selection_.WantsFrame(record)) {
        SendBegins(link, lane);
        SendGaps(link, lane, record);
        SendInfo(link, lane, record);
        MessageHead head;
        head.time = record.time;
        head.number = ++lane.records;
        head.same = record.same;
        head.flags = record.flags;
        head.offset = record.offset;
        head.info = lane.info;
        SendParts(link, lane, record, head);
        lane.sentUpTo = record.time;
        lane.hasSkipped = false;
        lane.isBehindErased = false;
        ++figures_.records;
    }
    figures_.sentUpTo = std::max(figures_.sentUpTo, record.time);
    // Last, since what fails before is tried again.
    lane.at = {record.time, true, record.same, HashOf(record.payload.data(), record.payload.size())};
}

void TrackSender::SendParts(Link& link, Lane& lane, const CardRecord& record, MessageHead head) {
    const std::string subject = Subject(lane.number);
    const std::size_t size = record.payload.size();
    std::size_t from = 0;
    if (std::exchange(lane.partTime, 0) == record.time && lane.partTotal == size) {
        from = static_cast<std::size_t>(lane.partOf); // The stream has the begin of it.
    }
    if (size <= link.MostPayload() && from == 0) {
        link.Send(subject, head, record.payload.data(), size);
        return;
    }
    for (head.partTotal = size; from < size;) {
        const std::size_t part = std::min(size - from, link.MostPayload());
        head.partOffset = from;
        link.Send(subject, head, record.payload.data() + from, part);
        from += part;
    }
}

void TrackSender::SendInfo(Link& link, Lane& lane, const CardRecord& record) {
    if (record.info == lane.infoText && (lane.info != 0 || record.info.empty()) &&
        record.time - lane.infoTime < kInfoEvery) {
        return;
    }
    lane.infoText = record.info;
    lane.infoTime = record.time;
    lane.info = 0;
    if (!record.info.empty()) {
        MessageHead head;
        head.kind = MessageKind::Info;
        head.time = record.time;
        lane.info = link.Send(calvane_fleet::InfoSubject(stream_.Device(), track_), head, record.info.data(),
                              record.info.size());
    }
}

/// Tells why there is nothing between the last record and this one, where that is longer than usual.
void TrackSender::SendGaps(Link& link, Lane& lane, const CardRecord& record) {
    const Time from = std::max(lane.sentUpTo, lane.gapUpTo);
    const Span span{lane.sentUpTo, record.time};
    const bool isBehindErased = record.isBehindErased || lane.isBehindErased;
    const bool isLong = span.last - span.first > kShortestGap;
    if ((!isLong && !isBehindErased) || from >= span.last) {
        return;
    }
    if (lane.hasSkipped) {
        SendGap(link, lane, span, calvane_fleet::kNotSelected);
        return;
    }
    bool isTold = false;
    for (const calvane_recording::Interval& interval : recorder_.GetCoverage(track_, span)) {
        if (interval.reason != 0) {
            isTold = true;
            if (interval.span.last > from) {
                // There was data, or the lane would not begin in front of it.
                const bool isErased =
                    interval.reason == kUnknown &&
                    (isBehindErased || recorder_.GetSpan(track_).first >= interval.span.last);
                SendGap(link, lane, interval.span, isErased ? kErasedForAge : interval.reason);
            }
        }
    }
    if (!isTold && isBehindErased) {
        SendGap(link, lane, span, kErasedForAge);
    }
}

void TrackSender::SendGap(Link& link, Lane& lane, const Span& span, unsigned int reason) {
    MessageHead head;
    head.kind = MessageKind::Gap;
    head.time = span.first;
    head.last = span.last;
    head.reason = reason;
    head.lane = lane.number;
    link.Send(calvane_fleet::GapSubject(stream_.Device(), track_), head, nullptr, 0);
    lane.gapUpTo = span.last;
    ++figures_.gaps;
}

/// Of records that the stream has; others are asked about again behind the next connection.
void TrackSender::ForgetEvents(Link& link) {
    if (lanes_.empty() || !link.IsStored(doneWith_)) {
        return;
    }
    selection_.Forget(doneUpTo_);
    const auto oldest = std::min_element(lanes_.begin(), lanes_.end(),
                                         [](const Lane& a, const Lane& b) { return a.at.time < b.at.time; });
    doneUpTo_ = oldest->at.time;
    doneWith_ = link.LastSequence();
}

TrackFigures TrackSender::GetFigures() const {
    TrackFigures figures = figures_;
    figures.backlog = 0;
    for (const Lane& lane : lanes_) {
        figures.backlog +=
            lane.end == kNever || lane.isAllSent ? 0 : std::max<Time>(0, lane.end - lane.at.time);
    }
    return figures;
}

} // namespace calvane_uplink
