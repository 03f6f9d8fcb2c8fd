#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "fleet/DeviceStream.h"

namespace calvane_fleet {

/// The messages of a subject from a sequence on to the last one that the stream had when this was opened, by a consumer of
/// the stream that exists as long as it is read.
///
/// Threads: one, beside the NATS client's own.
/// Memory:  the messages of two requests, each a few MiB.
/// Errors:  NatsError when nothing comes for five seconds.
class MessageReader {
public:
    MessageReader(DeviceStream& stream, const std::string& subject, std::uint64_t from);
    ~MessageReader();
    MessageReader(const MessageReader&) = delete;
    MessageReader& operator=(const MessageReader&) = delete;

    /// Nothing behind the last one.
    std::optional<StoredMessage> Read();

private:
    struct Queue {
        std::mutex lock;
        std::condition_variable changed;
        // Guarded by lock.
        std::deque<StoredMessage> messages;
        std::uint64_t arrived = 0;
        std::string failure;
    };

    static void Take(Queue& queue, natsMsg& message);
    void Request();

    DeviceStream& stream_;
    const std::string inbox_;
    const std::shared_ptr<Queue> queue_; // Of the subscription, too, which lives as long as the connection.
    std::string consumer_;
    std::uint64_t wanted_ = 0; // Messages that there are,
    std::uint64_t requested_ = 0;
    std::uint64_t given_ = 0;
};

} // namespace calvane_fleet
