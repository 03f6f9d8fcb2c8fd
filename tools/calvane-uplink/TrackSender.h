#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "Link.h"
#include "Policy.h"
#include "Recorder.h"
#include "Selection.h"

namespace calvane_uplink {

/// What has been sent of one track.
struct TrackFigures {
    std::uint64_t records = 0;
    std::uint64_t gaps = 0;
    Time sentUpTo = 0; ///< Time of the newest record that was sent or is not wanted.
    Time cardUpTo = 0; ///< Time of the newest record on the card.
    Time backlog = 0;  ///< Recorded time that older lanes still have to cover.
};

/// Copies the records of one track from the card into the stream of the device.
///
/// A track is copied in lanes, each a subject whose times never decrease. The newest lane follows what is recorded now. When
/// it has fallen behind and the newest data is to come first, another one is opened at the end of the card, and the older
/// one goes on up to there when there is room; when the clock was set back and the recorder has erased what lies behind, the
/// new lane takes the place of what the older ones have from there on. The newest lane is of one card: another card begins
/// another one, behind what was sent, so that what an older card has never takes the place of that. Where to go on is asked
/// from the stream alone: the last message of each lane that is not complete. So a lane begins in the stream with its first
/// record: without one nothing would tell that the clock was set back since.
///
/// Threads:  one.
/// Errors:   NatsError, which ends this; RecorderError, after which it goes on with the next call.
/// Lifetime: that of one Link.
class TrackSender {
public:
    TrackSender(calvane_fleet::DeviceStream& stream, std::function<bool()> isInterrupted, TrackKind track,
                const TrackPolicy& policy, std::shared_ptr<TopicListener> topic, bool newestFirst);

    /// Asks the stream where to go on.
    void Resume();
    /// Sends some of what is new, about so many bytes. Whether there may be more at once.
    bool SendLive(Link& link, std::size_t budget);
    /// The same of what lies behind.
    bool SendBacklog(Link& link, std::size_t budget);
    TrackFigures GetFigures() const;

private:
    static constexpr Time kNever = std::numeric_limits<Time>::max();
    /// As long as there are so many, the newest lane catches up by itself.
    static constexpr std::size_t kMostLanes = 16;

    struct Lane {
        std::uint64_t number = 0;
        Time begin = 0;
        Time end = 0;           ///< Not included.
        std::uint64_t card = 0; ///< That has its records; 0: not known.
        Position at;
        Time sentUpTo = 0; ///< The time of the last record, or the lane's begin.
        std::uint64_t records = 0;
        bool hasBegun = false;       ///< In the stream.
        bool isAllSent = false;      ///< Up to its end.
        bool hasSkipped = false;     ///< Records that the policy does not want, since then.
        Time gapUpTo = 0;            ///< Up to there gaps were told.
        Time partTime = 0;           ///< The record behind the position, if the stream has a part of it,
        std::uint64_t partOf = 0;    ///< of so many bytes,
        std::uint64_t partTotal = 0; ///< of so many.
        bool isBehindErased = false; ///< The record at the position was erased.
        bool isAtLiveEdge = false;   ///< It has just been opened there.
        std::string infoText;
        std::uint64_t info = 0; ///< The message that has the text.
        Time infoTime = 0;
        std::unique_ptr<CardReader> reader;
    };

    enum class Progress { More, AllSent, Waiting };

    std::optional<Lane> LoadLane(std::uint64_t number, Time end);
    void TakeInfo(Lane& lane) const;
    Lane& OpenLane(const Position& at, std::uint64_t card);
    std::optional<Position> FindNext(Time behind);
    void SendBegins(Link& link, const Lane& last);
    void CloseLanesAt(Time begin);
    void EndLane(Link& link, Lane& lane);
    Progress SendSome(Link& link, Lane& lane, std::size_t budget);
    void OpenReader(Lane& lane);
    Progress SendFromReader(Link& link, Lane& lane, std::size_t budget);
    bool IsBehind(const Lane& lane, const CardRecord& record) const;
    Time LiveEnd() const;
    std::optional<Position> FindLiveBegin();
    void ForgetEvents(Link& link);
    void FindPosition(Link& link, Lane& lane);
    void GoOnOnOtherCard(Time lost, std::uint64_t card);
    std::optional<Position> FindLastCommon(std::uint64_t lane);
    std::optional<Position> FindLastCommonOfAny(std::uint64_t lane);
    void SendRecord(Link& link, Lane& lane, const CardRecord& record);
    void SendParts(Link& link, Lane& lane, const CardRecord& record, MessageHead head);
    void SendInfo(Link& link, Lane& lane, const CardRecord& record);
    void SendGaps(Link& link, Lane& lane, const CardRecord& record);
    void SendGap(Link& link, Lane& lane, const Span& span, unsigned int reason);
    std::string Subject(std::uint64_t lane) const;

    calvane_fleet::DeviceStream& stream_;
    const TrackKind track_;
    const bool newestFirst_;
    Recorder recorder_; // Its own: the recorder has few streams for each client.
    Selection selection_;
    std::list<Lane>
        lanes_; // Those that are not complete, in the order of their numbers; the last one is live.
    std::uint64_t newestLane_ = 0;
    Span card_;
    std::chrono::steady_clock::time_point lastLook_; // For what is new.
    std::chrono::steady_clock::time_point lastRead_; // Of what is new.
    TrackFigures figures_;
    Time doneUpTo_ = 0;          // All lanes lay behind this time
    std::uint64_t doneWith_ = 0; // when this message was the last one.
};

} // namespace calvane_uplink
