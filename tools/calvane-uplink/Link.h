#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "fleet/DeviceStream.h"

namespace calvane_uplink {

using calvane_fleet::MessageHead;
using calvane_fleet::NatsError;

/// What has been sent since the program was started. Those of all connections.
struct LinkFigures {
    std::uint64_t messages = 0; ///< That the stream has.
    std::uint64_t bytes = 0;    ///< Of their payloads.
    std::uint64_t resends = 0;  ///< That were sent and had to be left to the next connection.
    double bytesPerSecond = 0;  ///< Of late.
};

/// Appends messages to the stream of a device: each with the condition that it follows the one before it, so that the stream
/// takes all of them in order and once, or none from the first one on that it did not get. Whatever goes wrong ends the
/// link; the next one asks the stream what it has.
///
/// Threads:  one, beside the NATS client's own, which bring the acknowledgements.
/// Errors:   NatsError from every operation once something has gone wrong; what was sent and not acknowledged may be in
///           the stream or not then, but no later message without all earlier ones.
/// Lifetime: its end closes the connection. The figures and the connection outlive it.
/// Memory:   what was sent and not acknowledged lies in the buffers of the sockets and the client, kMostBytes of it.
class Link {
public:
    /// In flight at most: a quarter of it, and on a fast link more, as much as that takes within half a second.
    static constexpr std::size_t kMostBytes = std::size_t{32} * 1024 * 1024;
    static constexpr std::size_t kMostMessages = 1024;
    /// An acknowledgement that takes longer is none.
    static constexpr std::chrono::milliseconds kAckTimeout{5000};

    /// Begins behind the message `lastSequence`. `mostBytes` is the limit of the stream for one message, -1: none.
    Link(calvane_fleet::NatsConnection& connection, std::uint64_t lastSequence, std::int64_t mostBytes,
         LinkFigures& figures);
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    /// Returns the sequence that the message will have. Waits while there is no room.
    std::uint64_t Send(const std::string& subject, const MessageHead& head, const void* data,
                       std::size_t size);
    /// How many bytes of a record go into one message.
    std::size_t MostPayload() const { return mostPayload_; }
    /// Bytes of payload.
    std::uint64_t SentBytes() const { return sentBytes_; }
    /// Whether data of the past may be sent: so much of it is on its way only as the link takes within half a second, since
    /// what is recorded now waits behind it.
    bool HasRoomForBacklog();
    /// That of the last message that was sent.
    std::uint64_t LastSequence() const { return last_; }
    /// Whether the message with this sequence is in the stream.
    bool IsStored(std::uint64_t sequence);
    /// Throws what has gone wrong, if something has.
    void RequireAlive();
    void WaitUntilStored();
    LinkFigures GetFigures();

private:
    struct Sent {
        std::uint64_t sequence;
        std::size_t bytes;
        std::chrono::steady_clock::time_point at;
    };

    void OnAck(natsMsg& message);
    void TakeAck(const std::string& text);
    void Fail(const std::string& reason);
    void CheckState();
    std::size_t MostBytes() const;
    bool HasDrained() const;
    void WaitForRoom(std::unique_lock<std::mutex>& guard, std::size_t size);
    void MeasureRate(std::size_t bytes);

    calvane_fleet::NatsConnection& connection_;
    const std::size_t mostPayload_;
    const std::string inbox_;
    const std::string idPrefix_; // Of this link alone.
    std::string lastId_;         // Of the last message that was sent.
    std::uint64_t sentBytes_ = 0;
    std::uint64_t last_; // Sequence of the last message that was sent.

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    LinkFigures& figures_;
    std::deque<Sent> inFlight_;
    std::size_t bytesInFlight_ = 0;
    std::string failure_;
    bool isWaiting_ = false;   // The sender is, until much of what is in flight has arrived.
    std::size_t measured_ = 0; // Bytes since measuredSince_.
    std::chrono::steady_clock::time_point measuredSince_ = std::chrono::steady_clock::now();
};

} // namespace calvane_uplink
