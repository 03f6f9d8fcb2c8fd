#include "RecordingControl.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <functional>
#include <limits>
#include <numeric>
#include <utility>

#include "calvane/recording/DrennApiException.h"
#include "calvane/recording/RecordingManager.h"
#include "quarn/core/Logger.h"
#include "recording_control/generated/RecordingControl1Adaptor.h"

namespace calvane_recorder {

using boost::posix_time::ptime;
using quarn::calvane::RecordingManager;
using quarn::calvane::RecordingSpace;
using quarn::calvane::RecordingStatus;
using State = RecordingStatus::State;

namespace {

constexpr const char* kName = "com.drenn.recording_control";
constexpr const char* kPath = "/com/drenn/recording_control";
constexpr std::uint64_t kSecond = 1'000'000;

std::string NameOf(State state) {
    switch (state) {
        case State::Recording:
            return "recording";
        case State::Waiting:
            return "waiting";
        case State::ReadOnly:
            return "read-only";
        case State::CardAway:
            return "card-away";
        case State::Disabled:
            return "disabled";
    }
    return {};
}

std::string NameOf(Forecast::Erases erases) {
    switch (erases) {
        case Forecast::Erases::Nothing:
            return "nothing";
        case Forecast::Erases::Age:
            return "age";
        case Forecast::Erases::Space:
            return "space";
        case Forecast::Erases::SpaceLimit:
            return "space-limit";
    }
    return {};
}

std::int64_t MicrosecondsOf(const ptime& time) {
    return time.is_special() ? 0 : quarn::calvane::unixMicrosecondsFromTime(time);
}

std::int64_t Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::uint64_t Sum(const TrackBytes& bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint64_t{0});
}

std::uint64_t LimitNow() {
    const auto limit = RecordingManager::getMaxRetentionTime();
    return limit.is_special() || limit.is_negative() ? 0
                                                     : static_cast<std::uint64_t>(limit.total_microseconds());
}

} // namespace

/// On the bus while there is one.
class RecordingControl::Object
    : public sdbus::AdaptorInterfaces<com::drenn::RecordingControl1_adaptor, sdbus::Properties_adaptor> {
public:
    Object(sdbus::IConnection& connection, RecordingControl& control)
        : AdaptorInterfaces(connection, kPath), control_(control) {
        registerAdaptor();
    }
    virtual ~Object() { unregisterAdaptor(); }

private:
    using U = std::uint32_t;
    using T = std::uint64_t;
    static constexpr T kMostSpace = T{std::numeric_limits<std::int32_t>::max()} << 20U; // Kept in MiB.

    static sdbus::Struct<T, T> ToBus(const RecordingSpace& space) {
        return sdbus::Struct<T, T>{space.data, space.history};
    }
    static void SetLimit(const std::function<void()>& set) {
        try {
            set();
        } catch (const quarn::calvane::DrennApiException& problem) { // It could not be kept.
            throw sdbus::Error("com.drenn.Error.Failed", problem.what());
        } catch (const std::exception& problem) { // The limit holds; upkeep erases when the card lets it.
            quarn::core::Logger::GetLogger("calvane-recorder")
                ->Warning("What is beyond the new limit is not erased yet: %s", problem.what());
        }
    }

    using TrackFacts = sdbus::Struct<U, bool, T, T, T, T, std::int64_t, std::int64_t>;

    std::tuple<U, U> getMaximumRetention() override {
        const T limit = LimitNow();
        return {static_cast<U>(limit / kSecond), static_cast<U>(limit % kSecond)};
    }
    void setMaximumRetention(const U& sec, const U& usec) override {
        if (usec >= kSecond || sec > static_cast<U>(std::numeric_limits<std::int32_t>::max())) {
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs",
                               "A limit has at most 2147483647 seconds and 999999 microseconds");
        }
        SetLimit([&] {
            RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(static_cast<long>(sec)) +
                                                  boost::posix_time::microseconds(static_cast<long>(usec)));
        });
    }
    void setMaximumSpace(const T& data, const T& history) override {
        if (std::max(data, history) > kMostSpace) {
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs",
                               "A limit of space has at most " + std::to_string(kMostSpace) + " bytes");
        }
        SetLimit([&] { RecordingManager::setMaxSpace({data, history}); });
    }
    std::string State() override { return NameOf(control_.GetFacts().recording.state); }
    std::string Problem() override { return control_.GetFacts().recording.problem; }
    sdbus::Struct<T, T> MaximumSpace() override { return ToBus(RecordingManager::getMaxSpace()); }
    sdbus::Struct<T, T> UsedSpace() override { return ToBus(control_.GetFacts().recording.used); }
    T MaximumRetention() override { return control_.GetFacts().limit; }
    sdbus::Struct<T, T> Card() override {
        const RecordingStatus status = control_.GetFacts().recording;
        return sdbus::Struct<T, T>{status.cardBytes, status.usableBytes};
    }
    /// Not that of a second ago: who compares it with what the other services say must not take a new card for the old one.
    std::string CardId() override { return quarn::calvane::GetRecordingStatus().cardId; }
    T BytesPerHour() override { return Sum(control_.GetFacts().bytesPerHour); }
    std::int64_t FullAt() override { return control_.GetFacts().forecast.fullAt; }
    std::string ErasesFirst() override { return NameOf(control_.GetFacts().forecast.erases); }
    std::vector<TrackFacts> Tracks() override {
        const Facts facts = control_.GetFacts();
        std::vector<TrackFacts> tracks;
        for (std::size_t number = 0; number != kTracks; ++number) {
            const auto& track = facts.recording.tracks[number];
            tracks.push_back(TrackFacts{static_cast<U>(number), track.isPresent, track.writtenRecords,
                                        track.writtenBytes, track.refusedRecords, facts.bytesPerHour[number],
                                        MicrosecondsOf(track.first), MicrosecondsOf(track.last)});
        }
        return tracks;
    }

    RecordingControl& control_;
};

RecordingControl::RecordingControl() : link_("recording_control", *this) {
    Update();
    link_.Connect();
}

RecordingControl::~RecordingControl() {
    link_.Stop();
}

void RecordingControl::Update() {
    Facts facts;
    facts.recording = quarn::calvane::GetRecordingStatus();
    facts.limit = LimitNow();
    facts.maxSpace = RecordingManager::getMaxSpace();
    TrackBytes written{};
    for (std::size_t track = 0; track != kTracks; ++track) {
        written[track] = facts.recording.tracks[track].writtenBytes;
    }
    growth_.Add(std::chrono::steady_clock::now(), written);
    facts.bytesPerHour = growth_.GetBytesPerHour();
    const Room card{facts.recording.cardBytes / 100 * RecordingManager::getDiskMaxPercent(),
                    facts.recording.usableBytes};
    facts.forecast = MakeForecast(Now(), LimitRoom(card, facts.maxSpace.data, facts.recording.used.data),
                                  Sum(facts.bytesPerHour), facts.limit);
    std::vector<std::string> changed;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (facts.recording.state != facts_.recording.state) {
            changed.emplace_back("State");
        }
        if (facts.recording.problem != facts_.recording.problem) {
            changed.emplace_back("Problem");
        }
        if (facts.limit != facts_.limit) {
            changed.emplace_back("MaximumRetention");
        }
        if (facts.maxSpace != facts_.maxSpace) {
            changed.emplace_back("MaximumSpace");
        }
        facts_ = std::move(facts);
    }
    if (!changed.empty()) {
        link_.Post([this, changed = std::move(changed)](sdbus::IConnection&) {
            if (object_ != nullptr) {
                object_->emitPropertiesChangedSignal("com.drenn.RecordingControl1", changed);
            }
        });
    }
}

RecordingControl::Facts RecordingControl::GetFacts() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return facts_;
}

void RecordingControl::OnConnected(sdbus::IConnection& connection) {
    object_ = std::make_unique<Object>(connection, *this); // First: whoever sees the name can call it.
    connection.requestName(kName);
}

void RecordingControl::OnLost() {
    object_ = nullptr;
}

} // namespace calvane_recorder
