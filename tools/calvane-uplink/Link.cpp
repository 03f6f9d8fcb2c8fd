#include "Link.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace calvane_uplink {
namespace {

using calvane_fleet::MessagePtr;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kRoomForHeaders = 512;
constexpr std::size_t kLeastPayload = 1024;
constexpr std::size_t kLeastBacklog = std::size_t{256} * 1024;
constexpr double kBacklogSeconds = 0.5;
constexpr double kFlightSeconds = 0.5;
constexpr auto kMeasureEvery = std::chrono::milliseconds(200);
constexpr auto kLook = std::chrono::milliseconds(100);

std::size_t PayloadOf(std::size_t server, std::int64_t stream) {
    const std::size_t most = stream > 0 ? std::min(server, static_cast<std::size_t>(stream)) : server;
    if (most < kRoomForHeaders + kLeastPayload) {
        throw NatsError("The server takes messages of " + std::to_string(most) + " bytes only; at least " +
                        std::to_string(kRoomForHeaders + kLeastPayload) + " are needed");
    }
    return most - kRoomForHeaders;
}

/// The number behind a key of the server's JSON.
std::uint64_t NumberIn(const std::string& text, const char* key) {
    const std::size_t place = text.find(key);
    return place == std::string::npos ? 0
                                      : std::strtoull(text.c_str() + place + std::strlen(key), nullptr, 10);
}

} // namespace

Link::Link(calvane_fleet::NatsConnection& connection, std::uint64_t lastSequence, std::int64_t mostBytes,
           LinkFigures& figures)
    : connection_(connection),
      mostPayload_(PayloadOf(connection.MaxPayload(), mostBytes)),
      inbox_(connection.NewInbox()),
      idPrefix_(inbox_.substr(inbox_.rfind('.') + 1) + "."),
      last_(lastSequence),
      figures_(figures) {
    connection_.Subscribe(inbox_, [this](natsMsg& message) { OnAck(message); });
}

Link::~Link() {
    connection_.Close(); // It calls back.
    const std::lock_guard<std::mutex> guard(lock_);
    figures_.resends += inFlight_.size();
    figures_.bytesPerSecond = 0;
}

std::uint64_t Link::Send(const std::string& subject, const MessageHead& head, const void* data,
                         std::size_t size) {
    {
        std::unique_lock<std::mutex> guard(lock_);
        CheckState();
        WaitForRoom(guard, size);
        inFlight_.push_back({last_ + 1, size, Clock::now()});
        bytesInFlight_ += size;
    }
    natsMsg* made = nullptr;
    calvane_fleet::Check(natsMsg_Create(&made, subject.c_str(), inbox_.c_str(),
                                        static_cast<const char*>(data), static_cast<int>(size)),
                         "Cannot make a message");
    const MessagePtr message(made);
    natsMsgHeader_Set(made, calvane_fleet::kHeaderName, calvane_fleet::ToText(head).c_str());
    natsMsgHeader_Set(made, "Nats-Expected-Last-Sequence", std::to_string(last_).c_str());
    // The sequence alone could be that of a message which somebody else has sent in place of one that was refused.
    if (!lastId_.empty()) {
        natsMsgHeader_Set(made, "Nats-Expected-Last-Msg-Id", lastId_.c_str());
    }
    lastId_ = idPrefix_ + std::to_string(last_ + 1);
    natsMsgHeader_Set(made, "Nats-Msg-Id", lastId_.c_str());
    connection_.Publish(*made);
    sentBytes_ += size;
    return ++last_;
}

/// A full link is let drain by a quarter, so that not every acknowledgement wakes the sender.
void Link::WaitForRoom(std::unique_lock<std::mutex>& guard, std::size_t size) {
    if (inFlight_.empty() || (inFlight_.size() < kMostMessages && bytesInFlight_ + size <= MostBytes())) {
        return;
    }
    isWaiting_ = true;
    while (!HasDrained()) {
        changed_.wait_for(guard, kLook);
        CheckState();
    }
    isWaiting_ = false;
}

/// Under the lock. Servers that replicate acknowledge late: as much as a fast link takes meanwhile may be on its way.
std::size_t Link::MostBytes() const {
    const auto onTheWay = static_cast<std::size_t>(figures_.bytesPerSecond * kFlightSeconds);
    return std::clamp(onTheWay, kMostBytes / 4, kMostBytes);
}

/// Under the lock.
bool Link::HasDrained() const {
    return inFlight_.size() <= kMostMessages / 4 * 3 && bytesInFlight_ <= MostBytes() / 4 * 3;
}

bool Link::HasRoomForBacklog() {
    const std::lock_guard<std::mutex> guard(lock_);
    CheckState();
    const auto room = static_cast<std::size_t>(figures_.bytesPerSecond * kBacklogSeconds);
    return bytesInFlight_ < std::clamp(room, kLeastBacklog, MostBytes()) && inFlight_.size() < kMostMessages;
}

bool Link::IsStored(std::uint64_t sequence) {
    const std::lock_guard<std::mutex> guard(lock_);
    return inFlight_.empty() ? sequence <= last_ : sequence < inFlight_.front().sequence;
}

void Link::RequireAlive() {
    const std::lock_guard<std::mutex> guard(lock_);
    CheckState();
}

void Link::WaitUntilStored() {
    std::unique_lock<std::mutex> guard(lock_);
    for (CheckState(); !inFlight_.empty(); CheckState()) {
        changed_.wait_for(guard, kLook);
    }
}

LinkFigures Link::GetFigures() {
    const std::lock_guard<std::mutex> guard(lock_);
    return figures_;
}

/// Under the lock.
void Link::CheckState() {
    if (failure_.empty() && connection_.IsClosed()) {
        failure_ = "The connection was lost";
    }
    if (failure_.empty() && !inFlight_.empty() && Clock::now() - inFlight_.front().at > kAckTimeout) {
        failure_ = "The stream has not acknowledged a message for " +
                   std::to_string(kAckTimeout.count() / 1000) + " s";
    }
    if (!failure_.empty()) {
        throw NatsError(failure_);
    }
}

void Link::OnAck(natsMsg& message) {
    if (natsMsg_IsNoResponders(&message)) {
        Fail("There is no stream, or it has no leader");
        return;
    }
    TakeAck({natsMsg_GetData(&message), static_cast<std::size_t>(natsMsg_GetDataLength(&message))});
}

void Link::TakeAck(const std::string& text) {
    if (text.find("\"error\"") != std::string::npos) {
        Fail("The stream refuses a message: " + text);
        return;
    }
    const std::uint64_t sequence = NumberIn(text, "\"seq\":");
    const std::lock_guard<std::mutex> guard(lock_);
    if (inFlight_.empty() || inFlight_.front().sequence != sequence) {
        failure_ = "The stream acknowledges a message that is not the next one: " + text;
        changed_.notify_all();
        return;
    }
    const std::size_t bytes = inFlight_.front().bytes;
    inFlight_.pop_front();
    bytesInFlight_ -= bytes;
    ++figures_.messages;
    figures_.bytes += bytes;
    MeasureRate(bytes);
    if (inFlight_.empty() || (isWaiting_ && HasDrained())) {
        changed_.notify_all();
    }
}

void Link::Fail(const std::string& reason) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (failure_.empty()) {
        failure_ = reason;
    }
    changed_.notify_all();
}

/// Under the lock.
void Link::MeasureRate(std::size_t bytes) {
    measured_ += bytes;
    const auto passed = Clock::now() - measuredSince_;
    if (passed >= kMeasureEvery) {
        const double rate = static_cast<double>(measured_) / std::chrono::duration<double>(passed).count();
        figures_.bytesPerSecond = figures_.bytesPerSecond == 0 ? rate : (figures_.bytesPerSecond + rate) / 2;
        measured_ = 0;
        measuredSince_ += passed;
    }
}

} // namespace calvane_uplink
