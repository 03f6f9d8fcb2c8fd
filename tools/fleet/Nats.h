#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fleet/NatsOptions.h"

namespace calvane_fleet {

/// A server that cannot be reached or does not answer: trying again may help.
class NatsError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// JetStream has answered with an error.
class JetStreamError : public NatsError {
public:
    JetStreamError(const std::string& what, int code) : NatsError(what), code_(code) {}
    /// The number in "err_code".
    int Code() const { return code_; }
    static constexpr int kStreamNotFound = 10059;
    static constexpr int kNoMessage = 10037;

private:
    const int code_;
};

/// Throws NatsError "WHAT: reason" unless the status is good.
void Check(natsStatus status, const std::string& what);

struct MessageDestroyer {
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
using MessagePtr = std::unique_ptr<natsMsg, MessageDestroyer>;

struct SubscriptionDestroyer {
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
};
using SubscriptionPtr = std::unique_ptr<natsSubscription, SubscriptionDestroyer>;

/// A connection that is not made again when it is lost: whoever has it makes another one, and asks where to go on.
///
/// Threads: any; a subscription's callback runs on a thread of its own.
/// Errors:  NatsError.
class NatsConnection {
public:
    /// Of each question.
    static constexpr std::chrono::milliseconds kAnswerTimeout{5000};

    explicit NatsConnection(const NatsOptions& options);
    ~NatsConnection();
    NatsConnection(const NatsConnection&) = delete;
    NatsConnection& operator=(const NatsConnection&) = delete;

    /// Asks and parses the JSON of the answer. Throws JetStreamError when it has an error.
    nlohmann::json Ask(const std::string& operation, const nlohmann::json& question = {});
    /// The same with the answer as it comes, from a subject that is no operation of JetStream's.
    MessagePtr Request(const std::string& subject, const std::string& question);
    /// Calls back for every message. The subscription lives as long as the connection.
    void Subscribe(const std::string& subject, std::function<void(natsMsg&)> onMessage);
    /// On return its callback is not running any more.
    void Unsubscribe(const std::string& subject);
    void Publish(natsMsg& message);
    /// Asks for an answer to the subject `reply`.
    void PublishRequest(const std::string& subject, const std::string& reply, const std::string& text);
    std::string NewInbox() const;

    /// On return no callback is running or will be called.
    void Close();
    bool IsClosed() const { return natsConnection_IsClosed(connection_); }
    std::size_t MaxPayload() const;
    std::string Url() const;
    /// "$JS.API." or that of the domain.
    const std::string& ApiPrefix() const { return prefix_; }

private:
    struct Subscription;

    const std::string prefix_;
    natsConnection* connection_ = nullptr;
    std::vector<std::unique_ptr<Subscription>> subscriptions_;

    std::mutex overMutex_;
    /// Those that are over. The client's receiving thread takes no reference (up to nats.c 3.5), and may still be about to put a
    /// message into one: they are destroyed behind an answer that it has received since.
    std::vector<SubscriptionPtr> over_;
};

} // namespace calvane_fleet
