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

namespace {

/// What is known of the place that is looked for: nothing in front of `low` is wanted, and `found` stands at `high` or behind.
class TimeSearch {
public:
    TimeSearch(DeviceStream& stream, const std::string& subject, const MessagePlace& first,
               const MessagePlace& last, Time at)
        : stream_(stream),
          subject_(subject),
          at_(at),
          low_(first.sequence),
          high_(last.sequence),
          lowTime_(first.time),
          highTime_(last.time),
          found_(last.sequence) {}

    std::uint64_t Find() {
        for (std::uint64_t step = kFirstStep; low_ < high_; step = std::min(step * kFirstStep, kMostStep)) {
            const bool isBehind = Look(Guess(low_, high_, lowTime_, highTime_, at_));
            if (low_ < high_) { // So that a good guess is bounded from both sides at once.
                const std::uint64_t width = std::min(step, (high_ - low_) / 2);
                Look(isBehind ? high_ - std::max<std::uint64_t>(width, 1) : low_ + width);
            }
        }
        return found_;
    }

private:
    /// A message whose neighbours have not been read of late costs the server a block of megabytes, others nearly nothing.
    static constexpr std::uint64_t kFirstStep = 64;
    static constexpr std::uint64_t kMostStep = std::uint64_t{1} << 48;

    /// Whether what is looked for stands in front of it.
    bool Look(std::uint64_t sequence) {
        const auto next = stream_.GetNext(subject_, sequence);
        if (next && next->sequence < high_ && next->head.time < at_) {
            low_ = next->sequence + 1;
            lowTime_ = next->head.time;
            return false;
        }
        if (next && next->sequence < high_) {
            highTime_ = next->head.time;
            found_ = next->sequence;
        }
        high_ = sequence; // Nothing of the subject lies between it and the next one.
        return true;
    }

    DeviceStream& stream_;
    const std::string& subject_;
    const Time at_;
    std::uint64_t low_;
    std::uint64_t high_;
    Time lowTime_;
    Time highTime_;
    std::uint64_t found_;
};

} // namespace

std::optional<std::uint64_t> FindTime(DeviceStream& stream, const std::string& subject,
                                      const MessagePlace& first, const MessagePlace& last, Time at) {
    if (last.time < at) {
        return std::nullopt;
    }
    return first.time >= at ? first.sequence : TimeSearch(stream, subject, first, last, at).Find();
}

} // namespace calvane_fleet
