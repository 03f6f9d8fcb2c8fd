#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "fleet/FleetFormat.h"
#include "fleet/Nats.h"

namespace calvane_fleet {

/// A message that a stream holds.
struct StoredMessage {
    std::uint64_t sequence = 0;
    std::string subject;
    MessageHead head;
    std::string data;
};

struct StreamState {
    std::uint64_t firstSequence = 0;
    std::uint64_t lastSequence = 0;
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::string leader;          ///< Empty with a single server.
    std::int64_t mostBytes = -1; ///< Of a message that it takes; -1: as many as the server.
};

/// The questions to the stream of one device that the server's leader of it answers.
///
/// Errors: NatsError, JetStreamError; std::runtime_error for messages that are not of this format.
class DeviceStream {
public:
    DeviceStream(NatsConnection& connection, const std::string& device);

    const std::string& Device() const { return device_; }
    NatsConnection& Connection() { return connection_; }
    StreamState GetState();
    /// Subjects that fit the filter, and how many messages each has.
    std::map<std::string, std::uint64_t> GetSubjects(const std::string& filter);
    /// The number of the newest lane; 0 if there is none.
    std::uint64_t NewestLane(const std::string& filter);
    /// Nothing where there is no such message.
    std::optional<StoredMessage> GetLast(const std::string& subject);
    std::optional<StoredMessage> GetNext(const std::string& subject, std::uint64_t sequence);
    std::optional<StoredMessage> Get(std::uint64_t sequence);

private:
    std::optional<StoredMessage> GetMessage(const nlohmann::json& question);

    NatsConnection& connection_;
    const std::string device_;
    const std::string stream_;
};

struct MessagePlace {
    std::uint64_t sequence = 0;
    Time time = 0;
};

/// The sequence of the first message of a subject whose time is not before `at`, from its first to its last one; nothing if
/// there is none. By interpolation over sequences, in which times must not decrease, in steps that grow.
std::optional<std::uint64_t> FindTime(DeviceStream& stream, const std::string& subject,
                                      const MessagePlace& first, const MessagePlace& last, Time at);

} // namespace calvane_fleet
