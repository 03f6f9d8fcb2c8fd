#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "Link.h"
#include "Recorder.h"

namespace calvane_uplink {

/// Copies the events of the recorder's history into the stream of the device. When the card's history is another one than what
/// was sent, all that the card has is sent again in a lane of its own, which counts from its begin on; of another card, what lies
/// behind that.
///
/// Threads:  one.
/// Errors:   NatsError, which ends this; RecorderError, after which it goes on with the next call.
/// Lifetime: that of one Link.
class HistorySender {
public:
    HistorySender(calvane_fleet::DeviceStream& stream, std::function<bool()> isInterrupted)
        : stream_(stream), recorder_(std::move(isInterrupted)) {}

    void Resume();
    /// Asks the recorder about once a second.
    void Send(Link& link);

private:
    void OpenLane(Link& link, Time begin, std::uint64_t card);
    bool BeginsWithSent(const calvane_recording::HistoryPage& page) const;
    void SendEvent(Link& link, const calvane_recording::Event& event);
    static std::string ToText(const calvane_recording::Event& event);

    calvane_fleet::DeviceStream& stream_;
    Recorder recorder_;
    std::uint64_t lane_ = 0;
    std::uint64_t card_ = 0; // That of the lane; 0: not known.
    Time time_ = 0;          // Of the last event that was sent.
    std::uint32_t same_ = 0; // Events of that time in front of it.
    std::string text_;       // Empty: none was sent in the lane.
    std::chrono::steady_clock::time_point lastLook_;
};

} // namespace calvane_uplink
