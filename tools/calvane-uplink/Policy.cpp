#include "Policy.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "calvane/config/NearestName.h"
#include "fleet/FleetFormat.h"
#include "quarn/core/IniFile.h"
#include "quarn/osa/Exception.h"

namespace calvane_uplink {
namespace {

using quarn::core::IniFile;
using quarn::osa::Exception;

constexpr const char* kUplink = "uplink";
constexpr const char* kStream = "stream";
constexpr unsigned int kMinutesOfDay = 24 * 60;

std::vector<std::string> Pieces(const std::string& text) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, ',');) {
        const std::size_t first = piece.find_first_not_of(" \t");
        if (first != std::string::npos) {
            pieces.push_back(piece.substr(first, piece.find_last_not_of(" \t") - first + 1));
        }
    }
    return pieces;
}

bool ToBool(const std::string& text) {
    if (text == "yes" || text == "true" || text == "1") {
        return true;
    }
    if (text == "no" || text == "false" || text == "0") {
        return false;
    }
    throw std::invalid_argument("\"" + text + "\" is neither yes nor no");
}

/// "500k", "2M", "1G": powers of 1000, or of 1024 as "500Ki".
std::uint64_t ToBytes(const std::string& text) {
    std::size_t used = 0;
    unsigned long long number = 0;
    try {
        number = std::stoull(text, &used);
    } catch (const std::logic_error&) {
        used = std::string::npos;
    }
    const std::string unit = used == std::string::npos ? "?" : text.substr(used);
    const bool isBinary = unit.size() == 2 && unit[1] == 'i';
    const std::size_t power = unit.empty() ? 0 : std::string("kMGT").find(unit[0] == 'K' ? 'k' : unit[0]) + 1;
    if (text[0] == '-' || (unit.size() > 1 && !isBinary) || power > 4) {
        throw std::invalid_argument("\"" + text + "\" is no number of bytes such as 500k, 2M or 64Gi");
    }
    for (std::size_t i = 0; i != power; ++i) {
        number *= isBinary ? 1024 : 1000;
    }
    return number;
}

unsigned int ToMinutes(const std::string& text) {
    unsigned int hour = 0;
    unsigned int minute = 0;
    char colon = 0;
    std::istringstream stream(text);
    if (!(stream >> hour >> colon >> minute) || colon != ':' || minute > 59 ||
        hour * 60 + minute > kMinutesOfDay || !stream.eof()) {
        throw std::invalid_argument("\"" + text + "\" is no time of the day such as 18:30");
    }
    return hour * 60 + minute;
}

Hours ToHours(const std::string& text) {
    const std::size_t dash = text.find('-');
    if (dash == std::string::npos) {
        throw std::invalid_argument("\"" + text + "\" is no time range such as 18:30-06:00");
    }
    return {ToMinutes(text.substr(0, dash)), ToMinutes(text.substr(dash + 1))};
}

std::set<TrackKind> ToTracks(const std::string& text) {
    std::set<TrackKind> tracks;
    for (const std::string& name : Pieces(text)) {
        tracks.insert(calvane_recording::ParseTrack(name));
    }
    return tracks;
}

std::string OneOf(const std::string& text, const std::vector<std::string>& words) {
    if (std::find(words.begin(), words.end(), text) == words.end()) {
        std::string all;
        for (const std::string& word : words) {
            all += (all.empty() ? "" : ", ") + word;
        }
        throw std::invalid_argument("\"" + text + "\" is none of " + all +
                                    quarn::calvane::SuggestName(text, words));
    }
    return text;
}

} // namespace

bool Hours::Has(Time at) const {
    const auto minute = static_cast<unsigned int>(at / (60 * calvane_recording::kSecond) % kMinutesOfDay);
    return begin <= end ? minute >= begin && minute < end : minute >= begin || minute < end;
}

/// Reads one group after the other; each key that is there must be one that is known.
class Policy::Reader {
public:
    using Setter = std::function<void(const std::string&)>;
    using Setters = std::map<std::string, Setter>;

    explicit Reader(const IniFile& file) : file_(file) {}

    void ReadGroup(const std::string& group, const Setters& setters) const {
        for (const auto& [key, value] : file_[group]) {
            const auto setter = setters.find(key);
            if (setter == setters.end()) {
                Fail(file_.GetKeyLine(group, key), group, "unknown key " + key + Suggest(key, setters));
            }
            try {
                setter->second(value);
            } catch (const std::exception& problem) {
                Fail(file_.GetKeyLine(group, key), group, key + ": " + problem.what());
            }
        }
    }
    [[noreturn]] void Fail(unsigned int line, const std::string& group, const std::string& what) const {
        throw Exception(
            (file_.GetFileName() + ":" + std::to_string(line) + ": [" + group + "] " + what).c_str());
    }
    template <typename Map>
    static std::string Suggest(const std::string& name, const Map& known) {
        std::vector<std::string> names;
        names.reserve(known.size());
        for (const auto& each : known) {
            names.push_back(each.first);
        }
        return quarn::calvane::SuggestName(name, names);
    }

    const IniFile& file_;
};

namespace {

std::map<std::string, std::function<void(const std::string&)>> UplinkKeys(Policy& policy) {
    calvane_fleet::NatsOptions& nats = policy.nats;
    const auto text = [](std::string& target) {
        return [&target](const std::string& value) { target = value; };
    };
    return {{"servers", [&nats](const std::string& value) { nats.servers = Pieces(value); }},
            {"domain", text(nats.domain)},
            {"credentials.file", text(nats.credentialsFile)},
            {"user.file", text(nats.userFile)},
            {"tls.ca.file", text(nats.caFile)},
            {"tls.certificate.file", text(nats.certificateFile)},
            {"tls.key.file", text(nats.keyFile)},
            {"device",
             [&policy](const std::string& value) {
                 if (!calvane_fleet::IsDeviceName(value)) {
                     throw std::invalid_argument(
                         "\"" + value + "\" is no name of letters, digits, - and _, at most 64 of them");
                 }
                 policy.device = value;
             }},
            {"order",
             [&policy](const std::string& value) {
                 policy.newestFirst = OneOf(value, {"newest", "oldest"}) == "newest";
             }},
            {"rate.limit", [&policy](const std::string& value) { policy.bytesPerSecond = ToBytes(value); }},
            {"history", [&policy](const std::string& value) { policy.history = ToBool(value); }}};
}

std::map<std::string, std::function<void(const std::string&)>> StreamKeys(StreamPolicy& stream) {
    return {
        {"create", [&stream](const std::string& value) { stream.create = ToBool(value); }},
        {"replicas",
         [&stream](const std::string& value) {
             stream.replicas = std::stoi(OneOf(value, {"1", "3", "5"}));
         }},
        {"retention",
         [&stream](const std::string& value) { stream.retention = calvane_recording::ParseDuration(value); }},
        {"bytes", [&stream](const std::string& value) { stream.bytes = ToBytes(value); }},
        {"placement", [&stream](const std::string& value) { stream.placement = value; }}};
}

std::map<std::string, std::function<void(const std::string&)>> TrackKeys(TrackPolicy& track,
                                                                         bool& isEnabled) {
    return {{"enabled", [&isEnabled](const std::string& value) { isEnabled = ToBool(value); }},
            {"frames",
             [&track](const std::string& value) {
                 track.onlyKeyFrames = OneOf(value, {"all", "key"}) == "key";
             }},
            {"hours", [&track](const std::string& value) { track.hours = ToHours(value); }},
            {"events", [&track](const std::string& value) { track.events = ToTracks(value); }},
            {"topic", [&track](const std::string& value) { track.topic = value; }},
            {"before",
             [&track](const std::string& value) { track.before = calvane_recording::ParseDuration(value); }},
            {"after",
             [&track](const std::string& value) { track.after = calvane_recording::ParseDuration(value); }}};
}

} // namespace

Policy::Policy(const std::string& path) {
    const IniFile file(path);
    const Reader reader(file);
    const std::vector<std::string> groups{kUplink, kStream, "video", "audio", "metadata"};
    for (const std::string& group : file.GetGroups()) {
        if (std::find(groups.begin(), groups.end(), group) == groups.end()) {
            reader.Fail(file.GetGroupLine(group), group,
                        "unknown group" + quarn::calvane::SuggestName(group, groups));
        }
    }
    reader.ReadGroup(kUplink, UplinkKeys(*this));
    reader.ReadGroup(kStream, StreamKeys(stream));
    for (const TrackKind kind : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
        TrackPolicy track;
        bool isEnabled = true;
        reader.ReadGroup(NameOf(kind), TrackKeys(track, isEnabled));
        if (isEnabled) {
            tracks[kind] = track;
        }
    }
    const unsigned int line = file.GetGroupLine(kUplink);
    if (nats.servers.empty()) {
        reader.Fail(line, kUplink, "servers is missing: the URLs of NATS servers, with commas");
    }
    if (device.empty()) {
        reader.Fail(line, kUplink, "device is missing: the name under which the fleet knows this device");
    }
    if (nats.certificateFile.empty() != nats.keyFile.empty()) {
        reader.Fail(line, kUplink, "tls.certificate.file and tls.key.file go together");
    }
    nats.name = "calvane-uplink " + device;
}

} // namespace calvane_uplink
