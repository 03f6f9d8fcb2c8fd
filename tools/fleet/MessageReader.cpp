#include "fleet/MessageReader.h"

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

namespace calvane_fleet {
namespace {

using nlohmann::json;

constexpr std::uint64_t kBatch = 64;
constexpr std::int64_t kInactiveNanoseconds = 30'000'000'000;

/// The number of the message in its stream, from the subject that an acknowledgement would go to:
/// $JS.ACK.[DOMAIN.ACCOUNT.]STREAM.CONSUMER.DELIVERED.SEQUENCE....
std::uint64_t SequenceIn(const std::string& reply) {
    std::vector<std::string> words;
    for (std::size_t from = 0; from <= reply.size();) {
        const std::size_t dot = std::min(reply.find('.', from), reply.size());
        words.push_back(reply.substr(from, dot - from));
        from = dot + 1;
    }
    constexpr std::size_t kShort = 9;
    const std::size_t place = words.size() <= kShort ? 5 : 7;
    return words.size() > place ? std::strtoull(words[place].c_str(), nullptr, 10) : 0;
}

} // namespace

MessageReader::MessageReader(DeviceStream& stream, const std::string& subject, std::uint64_t from)
    : stream_(stream), inbox_(stream.Connection().NewInbox()), queue_(std::make_shared<Queue>()) {
    NatsConnection& connection = stream_.Connection();
    connection.Subscribe(inbox_, [queue = queue_](natsMsg& message) { Take(*queue, message); });
    const std::string name = StreamOf(stream_.Device());
    const json answer =
        connection.Ask("CONSUMER.CREATE." + name, {{"stream_name", name},
                                                   {"config",
                                                    {{"filter_subject", subject},
                                                     {"deliver_policy", "by_start_sequence"},
                                                     {"opt_start_seq", std::max<std::uint64_t>(from, 1)},
                                                     {"ack_policy", "none"},
                                                     {"replay_policy", "instant"},
                                                     {"mem_storage", true},
                                                     {"num_replicas", 1},
                                                     {"inactive_threshold", kInactiveNanoseconds}}}});
    consumer_ = answer.at("name");
    wanted_ = answer.value("num_pending", std::uint64_t{0});
}

MessageReader::~MessageReader() {
    try {
        stream_.Connection().Unsubscribe(inbox_);
        stream_.Connection().PublishRequest(stream_.Connection().ApiPrefix() + "CONSUMER.DELETE." +
                                                StreamOf(stream_.Device()) + "." + consumer_,
                                            inbox_, "");
    } catch (const NatsError&) {
        return; // The server deletes it when nobody has asked it for a while.
    }
}

void MessageReader::Take(Queue& queue, natsMsg& message) {
    const std::lock_guard<std::mutex> guard(queue.lock);
    const char* text = nullptr;
    if (natsMsgHeader_Get(&message, "Status", &text) == NATS_OK) {
        const char* description = "";
        natsMsgHeader_Get(&message, "Description", &description);
        queue.failure = std::string("The stream ends a request: ") + text + " " + description;
    } else {
        StoredMessage stored;
        stored.sequence = SequenceIn(natsMsg_GetReply(&message));
        stored.subject = natsMsg_GetSubject(&message);
        stored.data.assign(natsMsg_GetData(&message),
                           static_cast<std::size_t>(natsMsg_GetDataLength(&message)));
        try {
            stored.head = ParseHead(natsMsgHeader_Get(&message, kHeaderName, &text) == NATS_OK ? text : "");
            queue.messages.push_back(std::move(stored));
            ++queue.arrived;
        } catch (const std::runtime_error& problem) {
            queue.failure = problem.what();
        }
    }
    queue.changed.notify_all();
}

void MessageReader::Request() {
    const std::uint64_t count = std::min(kBatch, wanted_ - requested_);
    if (count != 0) {
        stream_.Connection().PublishRequest(stream_.Connection().ApiPrefix() + "CONSUMER.MSG.NEXT." +
                                                StreamOf(stream_.Device()) + "." + consumer_,
                                            inbox_,
                                            json{{"batch", count}, {"expires", 20'000'000'000}}.dump());
        requested_ += count;
    }
}

std::optional<StoredMessage> MessageReader::Read() {
    if (given_ == wanted_) {
        return std::nullopt;
    }
    while (requested_ < std::min(given_ + 2 * kBatch - kBatch / 2, wanted_)) {
        Request();
    }
    std::unique_lock<std::mutex> guard(queue_->lock);
    const bool hasCome = queue_->changed.wait_for(guard, NatsConnection::kAnswerTimeout, [this] {
        return !queue_->messages.empty() || !queue_->failure.empty();
    });
    if (queue_->messages.empty()) {
        throw NatsError(hasCome ? queue_->failure
                                : "The stream of " + stream_.Device() + " sends no messages");
    }
    StoredMessage message = std::move(queue_->messages.front());
    queue_->messages.pop_front();
    ++given_;
    return message;
}

} // namespace calvane_fleet
