#include "RecordingClient.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "quarn/msgbus/BusLink.h"
#include "recording_control/generated/RecordingControl1Proxy.h"

namespace calvane_recording {
namespace {

using U = std::uint32_t;

constexpr U kPage = 1000; ///< The most that the services give at once.
constexpr int kTickMilliseconds = 100;

U SecondsOf(Time time) {
    return static_cast<U>(time < 0 ? 0 : std::min(time / kSecond, Time{0xFFFFFFFF}));
}

U MicrosecondsOf(Time time) {
    return static_cast<U>(time < 0 ? 0 : time % kSecond);
}

Time FromParts(U seconds, U microseconds) {
    return Time{seconds} * kSecond + microseconds;
}

std::string Explain(const sdbus::Error& problem) {
    const std::string& name = problem.getName();
    if (name == "org.freedesktop.DBus.Error.AccessDenied") {
        return "The bus denies access: only members of the group \"recording\" may ask the recorder, and of "
               "\"recording-admin\" set how long data is kept (" +
               problem.getMessage() + ")";
    }
    if (name == "org.freedesktop.DBus.Error.Disconnected") {
        return "The bus was lost: " + problem.getMessage();
    }
    return problem.getMessage();
}

/// Whether an error stands for there being no answer. Those of the C library have its names.
bool IsLost(const std::string& name) {
    constexpr std::array<const char*, 5> kNames{
        "org.freedesktop.DBus.Error.AccessDenied", "org.freedesktop.DBus.Error.Disconnected",
        "org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Timeout",
        "org.freedesktop.DBus.Error.TimedOut"};
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end() ||
           name.rfind("System.Error.", 0) == 0;
}

/// Makes a call and words its failure for people.
template <typename Call>
auto Ask(const Call& call) -> decltype(call()) {
    try {
        return call();
    } catch (const sdbus::Error& problem) {
        const std::string& name = problem.getName();
        if (name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
            name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
            throw RecordingClient::NotRunning(
                "The recorder does not run on this bus: start calvane-recorder, or choose the bus with "
                "--bus");
        }
        if (IsLost(name)) {
            throw RecordingClient::NoAnswer(Explain(problem));
        }
        throw std::runtime_error(Explain(problem));
    }
}

std::unique_ptr<sdbus::IConnection> OpenBus(std::chrono::milliseconds timeout) {
    try {
        auto connection = quarn::msgbus::BusLink::OpenBus();
        if (timeout.count() != 0) {
            connection->setMethodCallTimeout(timeout);
        }
        return connection;
    } catch (const std::exception& problem) {
        throw RecordingClient::NotRunning(problem.what());
    }
}

template <typename Events>
void AddEvents(const Events& from, std::vector<Event>& to) {
    for (const auto& event : from) {
        to.push_back({FromParts(std::get<0>(event), std::get<1>(event)), std::get<2>(event) == 1,
                      std::get<3>(event) != 0, std::get<4>(event)});
    }
}

} // namespace

class RecordingClient::Information : public sdbus::ProxyInterfaces<com::drenn::RecordingInformation1_proxy> {
public:
    explicit Information(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, "com.drenn.recording_information", "/com/drenn/recording_information") {
        registerProxy();
    }
    virtual ~Information() { unregisterProxy(); }

    OnPresent onPresent;
    OnDeleted onDeleted;

private:
    void onDataPresent(const U& track, const std::uint8_t& present) override {
        if (onPresent) {
            onPresent(track, present != 0);
        }
    }
    void onDataDeleted(const U& track, const U& startSec, const U& startUsec, const U& endSec,
                       const U& endUsec) override {
        if (onDeleted) {
            onDeleted(track, {FromParts(startSec, startUsec), FromParts(endSec, endUsec)});
        }
    }
};

class RecordingClient::DataAccess : public sdbus::ProxyInterfaces<com::drenn::RecordingDataAccess1_proxy> {
public:
    explicit DataAccess(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, "com.drenn.recording_data_access", "/com/drenn/recording_data_access") {
        registerProxy();
    }
    virtual ~DataAccess() { unregisterProxy(); }
};

class RecordingClient::Control : public sdbus::ProxyInterfaces<com::drenn::RecordingControl1_proxy> {
public:
    explicit Control(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, "com.drenn.recording_control", "/com/drenn/recording_control") {
        registerProxy();
    }
    virtual ~Control() { unregisterProxy(); }
};

RecordingClient::RecordingClient(std::chrono::milliseconds timeout)
    : connection_(OpenBus(timeout)),
      information_(std::make_unique<Information>(*connection_)),
      dataAccess_(std::make_unique<DataAccess>(*connection_)),
      control_(std::make_unique<Control>(*connection_)) {}

RecordingClient::~RecordingClient() = default;

Span RecordingClient::GetSummary() {
    const auto [firstSec, firstUsec, lastSec, lastUsec] =
        Ask([&] { return information_->getRecordingSummary(); });
    return {FromParts(firstSec, firstUsec), FromParts(lastSec, lastUsec)};
}

Span RecordingClient::GetTrackSummary(unsigned int track) {
    const auto [firstSec, firstUsec, lastSec, lastUsec] =
        Ask([&] { return information_->getTrackSummary(track); });
    return {FromParts(firstSec, firstUsec), FromParts(lastSec, lastUsec)};
}

State RecordingClient::GetState(Time at) {
    const auto [recording, video, audio, metadata] =
        Ask([&] { return information_->getRecordingState(SecondsOf(at), MicrosecondsOf(at)); });
    return {recording != 0, video != 0, audio != 0, metadata != 0};
}

AudioAttributes RecordingClient::GetAudioAttributes(Time at) {
    const auto [bits, channels, frequency, startSec, startUsec, endSec, endUsec] =
        Ask([&] { return information_->getAudioAttributes(SecondsOf(at), MicrosecondsOf(at)); });
    return {bits, channels, frequency, {FromParts(startSec, startUsec), FromParts(endSec, endUsec)}};
}

VideoAttributes RecordingClient::GetVideoAttributes(Time at) {
    const auto [encoding, width, height, bitrate, rate, startSec, startUsec, endSec, endUsec] =
        Ask([&] { return information_->getVideoAttributes(SecondsOf(at), MicrosecondsOf(at)); });
    return {encoding, width, height,
            bitrate,  rate,  {FromParts(startSec, startUsec), FromParts(endSec, endUsec)}};
}

std::vector<Interval> RecordingClient::GetCoverage(unsigned int track, const Span& span) {
    std::vector<Interval> intervals;
    ForEachInterval(track, span, [&intervals](const Interval& interval) {
        intervals.push_back(interval);
        return true;
    });
    return intervals;
}

void RecordingClient::ForEachInterval(unsigned int track, const Span& span,
                                      const std::function<bool(const Interval&)>& onInterval) {
    std::optional<Interval> last; // It may go on with the next page.
    U sec = SecondsOf(span.first);
    U usec = MicrosecondsOf(span.first);
    for (bool more = true; more;) {
        const auto [page, nextSec, nextUsec, goesOn] = Ask([&] {
            return dataAccess_->findCoverage(track, sec, usec, SecondsOf(span.last),
                                             MicrosecondsOf(span.last), kPage);
        });
        for (const auto& interval : page) {
            const Span stretch{FromParts(std::get<0>(interval), std::get<1>(interval)),
                               FromParts(std::get<2>(interval), std::get<3>(interval))};
            const unsigned int reason = std::get<4>(interval);
            if (last && last->reason == reason) {
                last->span.last = stretch.last;
                continue;
            }
            if (last && !onInterval(*last)) {
                return;
            }
            last = Interval{stretch, reason};
        }
        sec = nextSec;
        usec = nextUsec;
        more = goesOn != 0;
    }
    if (last) {
        onInterval(*last);
    }
}

History RecordingClient::GetHistory(const Span& span) {
    HistoryPage page = GetHistoryPage(span, {span.first, 0}, kPage);
    History history = std::move(page.history);
    while (page.more) {
        page = GetHistoryPage(span, page.next, kPage);
        history.events.insert(history.events.end(), page.history.events.begin(), page.history.events.end());
    }
    return history;
}

HistoryPage RecordingClient::GetHistoryPage(const Span& span, const HistoryCursor& from,
                                            std::uint32_t limit) {
    const sdbus::Struct<U, U, U> cursor(SecondsOf(from.time), MicrosecondsOf(from.time), from.skip);
    const auto [state, events, next, goesOn] = Ask([&] {
        return dataAccess_->findHistory(SecondsOf(span.first), MicrosecondsOf(span.first),
                                        SecondsOf(span.last), MicrosecondsOf(span.last), 0, limit, cursor);
    });
    HistoryPage page;
    AddEvents(state, page.history.state);
    AddEvents(events, page.history.events);
    page.next = {FromParts(std::get<0>(next), std::get<1>(next)), std::get<2>(next)};
    page.more = goesOn != 0;
    return page;
}

Status RecordingClient::GetStatus() {
    return Ask([&] {
        Status status;
        status.state = control_->State();
        status.problem = control_->Problem();
        status.limit = static_cast<Time>(control_->MaximumRetention());
        std::tie(status.maxSpace.data, status.maxSpace.history) = control_->MaximumSpace();
        std::tie(status.usedSpace.data, status.usedSpace.history) = control_->UsedSpace();
        std::tie(status.cardBytes, status.usableBytes) = control_->Card();
        status.bytesPerHour = control_->BytesPerHour();
        status.fullAt = control_->FullAt();
        status.erasesFirst = control_->ErasesFirst();
        for (const auto& track : control_->Tracks()) {
            status.tracks.push_back({std::get<0>(track),
                                     std::get<1>(track),
                                     std::get<2>(track),
                                     std::get<3>(track),
                                     std::get<4>(track),
                                     std::get<5>(track),
                                     {std::get<6>(track), std::get<7>(track)}});
        }
        status.uplink = AskUplink();
        return status;
    });
}

std::string RecordingClient::GetCardId() {
    return Ask([&] { return control_->CardId(); });
}

std::optional<Status::Uplink> RecordingClient::AskUplink() const {
    const auto proxy =
        sdbus::createProxy(*connection_, "com.drenn.recording_uplink", "/com/drenn/recording_uplink");
    Status::Uplink uplink;
    try {
        std::map<std::string, sdbus::Variant> facts;
        proxy->callMethod("GetAll")
            .onInterface("org.freedesktop.DBus.Properties")
            .withArguments("com.drenn.RecordingUplink1")
            .storeResultsTo(facts);
        using Pair = sdbus::Struct<std::uint64_t, std::uint64_t>;
        uplink.state = facts.at("State").get<std::string>();
        uplink.problem = facts.at("Problem").get<std::string>();
        uplink.server = facts.at("Server").get<std::string>();
        uplink.lag = static_cast<Time>(std::get<0>(facts.at("Lag").get<Pair>()));
        uplink.backlog = static_cast<Time>(facts.at("Backlog").get<std::uint64_t>());
        uplink.bytesPerSecond = facts.at("BytesPerSecond").get<std::uint64_t>();
        uplink.resends = facts.at("Resends").get<std::uint64_t>();
        uplink.gaps = facts.at("Gaps").get<std::uint64_t>();
    } catch (const sdbus::Error& error) {
        if (error.getName() == "org.freedesktop.DBus.Error.ServiceUnknown") {
            return std::nullopt;
        }
        uplink.state = "unknown";
        uplink.problem = error.getMessage();
    } catch (const std::out_of_range&) {
        uplink.state = "unknown";
        uplink.problem = "it is of another version";
    }
    return uplink;
}

Space RecordingClient::GetMaximumSpace() {
    return Ask([&] {
        Space limit;
        std::tie(limit.data, limit.history) = control_->MaximumSpace();
        return limit;
    });
}

void RecordingClient::SetMaximumSpace(const Space& limit) {
    Ask([&] { control_->setMaximumSpace(limit.data, limit.history); });
}

Time RecordingClient::GetMaximumRetention() {
    const auto [sec, usec] = Ask([&] { return control_->getMaximumRetention(); });
    return FromParts(sec, usec);
}

void RecordingClient::SetMaximumRetention(Time limit) {
    Ask([&] { control_->setMaximumRetention(SecondsOf(limit), MicrosecondsOf(limit)); });
}

int RecordingClient::OpenRecords(unsigned int track, const Span& span) {
    auto records = Ask([&] {
        return dataAccess_->openRecords(track, SecondsOf(span.first), MicrosecondsOf(span.first),
                                        SecondsOf(span.last), MicrosecondsOf(span.last));
    });
    return records.release();
}

void RecordingClient::Watch(OnPresent onPresent, OnDeleted onDeleted, const std::function<bool()>& onTick) {
    information_->onPresent = std::move(onPresent);
    information_->onDeleted = std::move(onDeleted);
    Ask([&] {
        // Not sdbus's own loop, whose end by an error could not be told from others.
        while (!onTick || onTick()) {
            if (!connection_->processPendingRequest()) {
                const auto data = connection_->getEventLoopPollData();
                pollfd wait{data.fd, data.events, 0};
                const int timeout = data.getPollTimeout();
                const bool isLong = timeout < 0 || timeout > kTickMilliseconds;
                poll(&wait, 1, onTick && isLong ? kTickMilliseconds : timeout);
            }
        }
    });
}

} // namespace calvane_recording
