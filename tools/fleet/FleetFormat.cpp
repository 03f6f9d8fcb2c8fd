#include "fleet/FleetFormat.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace calvane_fleet {
namespace {

constexpr const char* kPrefix = "calvane_"; // Of streams' names, in which a dot is not allowed.
constexpr std::array<const char*, 6> kKinds{"begin", "record", "end", "info", "gap", "event"};

template <typename Number>
void Put(std::string& text, const char* key, Number value) {
    if (value != 0) {
        text += ' ';
        text += key;
        text += std::to_string(value);
    }
}

std::int64_t NumberOf(const std::string& text, const std::string& all) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0) {
        throw std::runtime_error("The header \"" + all + "\" of a message is none that this program knows");
    }
    return value;
}

/// "3<1795271581500000,5<1795271581600000"
std::vector<OpenLane> ParseOpen(const std::string& text, const std::string& all) {
    std::vector<OpenLane> open;
    std::istringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, ',');) {
        const std::size_t split = std::min(piece.find('<'), piece.size() - 1);
        open.push_back({static_cast<std::uint64_t>(NumberOf(piece.substr(0, split), all)),
                        NumberOf(piece.substr(split + 1), all)});
    }
    return open;
}

void Set(MessageHead& head, const std::string& key, const std::string& value, const std::string& all) {
    if (key == "open") {
        head.open = ParseOpen(value, all);
        return;
    }
    const std::int64_t number = NumberOf(value, all);
    const auto count = static_cast<std::uint64_t>(number);
    if (key == "time") {
        head.time = number;
    } else if (key == "number") {
        head.number = count;
    } else if (key == "same") {
        head.same = count;
    } else if (key == "flags") {
        head.flags = static_cast<unsigned int>(number);
    } else if (key == "offset") {
        head.offset = number;
    } else if (key == "info") {
        head.info = count;
    } else if (key == "part") {
        head.partOffset = count;
    } else if (key == "of") {
        head.partTotal = count;
    } else if (key == "last") {
        head.last = number;
    } else if (key == "reason") {
        head.reason = static_cast<unsigned int>(number);
    } else if (key == "lane") {
        head.lane = count;
    } else if (key == "card") {
        head.card = count;
    } // Others are of a later version.
}

} // namespace

std::string ToText(const MessageHead& head) {
    std::string text = kKinds.at(static_cast<std::size_t>(head.kind));
    Put(text, "time=", head.time);
    Put(text, "number=", head.number);
    Put(text, "same=", head.same);
    Put(text, "flags=", head.flags);
    Put(text, "offset=", head.offset);
    Put(text, "info=", head.info);
    Put(text, "part=", head.partOffset);
    Put(text, "of=", head.partTotal);
    Put(text, "last=", head.last);
    Put(text, "reason=", head.reason);
    Put(text, "lane=", head.lane);
    Put(text, "card=", head.card);
    const char* before = " open=";
    for (const OpenLane& each : head.open) {
        text += before + std::to_string(each.lane) + "<" + std::to_string(each.end);
        before = ",";
    }
    return text;
}

MessageHead ParseHead(const std::string& text) {
    std::istringstream words(text);
    std::string word;
    words >> word;
    const auto* const kind = std::find(kKinds.begin(), kKinds.end(), word);
    if (kind == kKinds.end()) {
        throw std::runtime_error("The header \"" + text + "\" of a message is none that this program knows");
    }
    MessageHead head;
    head.kind = static_cast<MessageKind>(kind - kKinds.begin());
    while (words >> word) {
        const std::size_t split = word.find('=');
        if (split != std::string::npos) {
            Set(head, word.substr(0, split), word.substr(split + 1), text);
        }
    }
    return head;
}

bool IsDeviceName(const std::string& name) {
    const auto fits = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '_';
    };
    return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), fits);
}

std::string StreamOf(const std::string& device) {
    return kPrefix + device;
}

std::optional<std::string> DeviceOf(const std::string& stream) {
    const std::string prefix = kPrefix;
    if (stream.rfind(prefix, 0) != 0 || !IsDeviceName(stream.substr(prefix.size()))) {
        return std::nullopt;
    }
    return stream.substr(prefix.size());
}

std::string SubjectsOf(const std::string& device) {
    return "calvane." + device + ".>";
}

std::string LaneSubject(const std::string& device, TrackKind track, std::uint64_t lane) {
    return "calvane." + device + "." + NameOf(track) + "." + std::to_string(lane);
}

std::string InfoSubject(const std::string& device, TrackKind track) {
    return "calvane." + device + "." + NameOf(track) + ".info";
}

std::string GapSubject(const std::string& device, TrackKind track) {
    return "calvane." + device + "." + NameOf(track) + ".gaps";
}

std::string HistorySubject(const std::string& device, std::uint64_t lane) {
    return "calvane." + device + ".history." + std::to_string(lane);
}

std::string LanesFilter(const std::string& device, std::optional<TrackKind> track) {
    return "calvane." + device + "." + (track ? NameOf(*track) : "history") + ".*";
}

std::optional<std::uint64_t> LaneOf(const std::string& subject) {
    const std::string end = subject.substr(subject.rfind('.') + 1);
    const bool isNumber = !end.empty() && end.size() < 19 &&
                          std::all_of(end.begin(), end.end(), [](char c) { return c >= '0' && c <= '9'; });
    return isNumber ? std::optional<std::uint64_t>(std::strtoull(end.c_str(), nullptr, 10)) : std::nullopt;
}

} // namespace calvane_fleet
