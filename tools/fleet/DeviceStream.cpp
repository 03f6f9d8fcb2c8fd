#include "fleet/DeviceStream.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace calvane_fleet {
namespace {

using nlohmann::json;

constexpr const char* kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::array<int, 256> MakeDigits() {
    std::array<int, 256> digits{};
    digits.fill(-1);
    for (int i = 0; i != 64; ++i) {
        digits.at(static_cast<unsigned char>(kBase64[i])) = i;
    }
    return digits;
}

std::string DecodeBase64(const std::string& text) {
    static const std::array<int, 256> kDigits = MakeDigits();
    std::string bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t value = 0;
    int bits = 0;
    for (const char c : text) {
        const int digit = kDigits.at(static_cast<unsigned char>(c));
        if (digit < 0) {
            continue; // Padding.
        }
        value = value << 6 | static_cast<std::uint32_t>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(value >> bits & 0xFF);
        }
    }
    return bytes;
}

std::string HeaderIn(const std::string& headers) {
    const std::string key = std::string("\r\n") + kHeaderName + ": ";
    const std::size_t begin = headers.find(key);
    if (begin == std::string::npos) {
        return "";
    }
    return headers.substr(begin + key.size(), headers.find("\r\n", begin + 2) - begin - key.size());
}

/// Where a time would stand if sequences were made at a steady rate.
std::uint64_t Guess(std::uint64_t low, std::uint64_t high, Time lowTime, Time highTime, Time at) {
    const double share = highTime > lowTime
                             ? static_cast<double>(at - lowTime) / static_cast<double>(highTime - lowTime)
                             : 0.5;
    const double place =
        static_cast<double>(low) + std::clamp(share, 0.0, 1.0) * static_cast<double>(high - low);
    return std::clamp(static_cast<std::uint64_t>(place), low, high - 1);
}

} // namespace

DeviceStream::DeviceStream(NatsConnection& connection, const std::string& device)
    : connection_(connection), device_(device), stream_(StreamOf(device)) {}

StreamState DeviceStream::GetState() {
    const json answer = connection_.Ask("STREAM.INFO." + stream_);
    const json& state = answer.at("state");
    StreamState result;
    result.firstSequence = state.at("first_seq");
    result.lastSequence = state.at("last_seq");
    result.messages = state.at("messages");
    result.bytes = state.at("bytes");
    result.mostBytes = answer.at("config").value("max_msg_size", -1);
    if (answer.contains("cluster")) {
        result.leader = answer.at("cluster").value("leader", "");
    }
    return result;
}

std::map<std::string, std::uint64_t> DeviceStream::GetSubjects(const std::string& filter) {
    const json answer = connection_.Ask("STREAM.INFO." + stream_, {{"subjects_filter", filter}});
    const auto subjects = answer.at("state").find("subjects");
    return subjects != answer.at("state").end() && !subjects->is_null()
               ? subjects->get<std::map<std::string, std::uint64_t>>()
               : std::map<std::string, std::uint64_t>();
}

std::uint64_t DeviceStream::NewestLane(const std::string& filter) {
    std::uint64_t newest = 0;
    for (const auto& [subject, count] : GetSubjects(filter)) {
        newest = std::max(newest, LaneOf(subject).value_or(0));
    }
    return newest;
}

std::optional<StoredMessage> DeviceStream::GetLast(const std::string& subject) {
    return GetMessage({{"last_by_subj", subject}});
}

std::optional<StoredMessage> DeviceStream::GetNext(const std::string& subject, std::uint64_t sequence) {
    return GetMessage({{"seq", std::max<std::uint64_t>(sequence, 1)}, {"next_by_subj", subject}});
}

std::optional<StoredMessage> DeviceStream::Get(std::uint64_t sequence) {
    return GetMessage({{"seq", sequence}});
}

std::optional<StoredMessage> DeviceStream::GetMessage(const json& question) {
    try {
        const json answer = connection_.Ask("STREAM.MSG.GET." + stream_, question).at("message");
        StoredMessage message;
        message.sequence = answer.at("seq");
        message.subject = answer.at("subject");
        message.data = DecodeBase64(answer.value("data", ""));
        message.head = ParseHead(HeaderIn(DecodeBase64(answer.value("hdrs", ""))));
        return message;
    } catch (const JetStreamError& problem) {
        if (problem.Code() == JetStreamError::kNoMessage) {
            return std::nullopt;
        }
        throw;
    }
}

std::optional<StoredMessage> FindTime(DeviceStream& stream, const std::string& subject, Time at) {
    std::optional<StoredMessage> found = stream.GetLast(subject);
    if (!found || found->head.time < at) {
        return std::nullopt;
    }
    std::uint64_t low = stream.GetState().firstSequence;
    std::uint64_t high =
        found->sequence; // Nothing in front of `low` is wanted, and `found` stands at `high` or behind.
    Time lowTime = 0;
    Time highTime = found->head.time;
    for (bool guess = false; low < high; guess = !guess && lowTime != 0) {
        const std::uint64_t middle = guess ? Guess(low, high, lowTime, highTime, at) : low + (high - low) / 2;
        auto next = stream.GetNext(subject, middle);
        if (!next || next->sequence >= high) {
            high = middle; // Nothing of the subject lies between.
        } else if (next->head.time < at) {
            low = next->sequence + 1;
            lowTime = next->head.time;
        } else {
            highTime = next->head.time;
            found = std::move(next);
            high = middle; // None lies between the middle and it.
        }
    }
    return found;
}

} // namespace calvane_fleet
