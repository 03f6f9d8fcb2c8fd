#include "HistorySender.h"

#include <algorithm>
#include <limits>

#include "calvane/recording/RecordingManager.h"

namespace calvane_uplink {
namespace {

using calvane_fleet::MessageKind;
using calvane_recording::Event;
using calvane_recording::HistoryPage;
using quarn::calvane::RecordingManager;

constexpr Time kNever = std::numeric_limits<Time>::max();
constexpr auto kLookEvery = std::chrono::seconds(1);

} // namespace

void HistorySender::Resume() {
    lane_ = stream_.NewestLane(calvane_fleet::LanesFilter(stream_.Device(), std::nullopt));
    const auto last =
        lane_ != 0 ? stream_.GetLast(calvane_fleet::HistorySubject(stream_.Device(), lane_)) : std::nullopt;
    time_ = last ? last->head.time : 0;
    same_ = last ? static_cast<std::uint32_t>(last->head.same) : 0;
    text_ = last && last->head.kind == MessageKind::Event ? last->data : "";
    const auto first = lane_ != 0 ? stream_.GetNext(calvane_fleet::HistorySubject(stream_.Device(), lane_), 1)
                                  : std::nullopt;
    card_ = first && first->head.kind == MessageKind::Begin ? first->head.card : 0;
}

void HistorySender::Send(Link& link) {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastLook_ < kLookEvery) {
        return;
    }
    lastLook_ = now;
    HistoryPage page = recorder_.GetHistoryPage({time_, kNever}, {time_, same_});
    if (!text_.empty() && !BeginsWithSent(page)) {
        const std::uint64_t card = recorder_.GetCard();
        // What another card has of the time before would take the place of what was sent.
        const Time from = card_ != 0 && card_ != card ? std::min(time_ + 1, calvane_recording::Now()) : 0;
        page = recorder_.GetHistoryPage({from, kNever}, {from, 0});
        if (!page.history.events.empty() && (from != 0 || page.history.events.front().time <= time_)) {
            OpenLane(link, page.history.events.front().time, card);
        }
    } else if (lane_ == 0 && !page.history.events.empty()) {
        OpenLane(link, page.history.events.front().time, recorder_.GetCard());
    }
    auto event = page.history.events.begin();
    if (BeginsWithSent(page)) {
        ++event;
    }
    while (true) {
        for (; event != page.history.events.end(); ++event) {
            SendEvent(link, *event);
        }
        if (!page.more) {
            return;
        }
        page = recorder_.GetHistoryPage({time_, kNever}, page.next);
        event = page.history.events.begin();
    }
}

/// With the event that was sent last.
bool HistorySender::BeginsWithSent(const HistoryPage& page) const {
    const auto& events = page.history.events;
    return !text_.empty() && !events.empty() && events.front().time == time_ &&
           ToText(events.front()) == text_;
}

void HistorySender::OpenLane(Link& link, Time begin, std::uint64_t card) {
    ++lane_;
    card_ = card;
    text_.clear();
    MessageHead head;
    head.kind = MessageKind::Begin;
    head.time = begin;
    head.card = card;
    link.Send(calvane_fleet::HistorySubject(stream_.Device(), lane_), head, nullptr, 0);
}

void HistorySender::SendEvent(Link& link, const Event& event) {
    same_ = !text_.empty() && event.time == time_ ? same_ + 1 : 0;
    time_ = event.time;
    text_ = ToText(event);
    MessageHead head;
    head.kind = MessageKind::Event;
    head.time = time_;
    head.same = same_;
    link.Send(calvane_fleet::HistorySubject(stream_.Device(), lane_), head, text_.data(), text_.size());
}

/// As the recorder writes it into the history track.
std::string HistorySender::ToText(const Event& event) {
    RecordingManager::InfoMap map{{RecordingManager::kHistoryEventType, event.isOfTrack ? "1" : "0"}};
    if (event.isOfTrack) {
        map[RecordingManager::kTrackType] = std::to_string(event.track);
        map[RecordingManager::kTrackDataPresent] = event.present ? "1" : "0";
    } else {
        map[RecordingManager::kRecordingState] = event.present ? "1" : "0";
    }
    std::string text;
    RecordingManager::serializeTrackInfo(map, text);
    return text;
}

} // namespace calvane_uplink
