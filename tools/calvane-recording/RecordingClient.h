#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "TimeText.h"
#include "drenn/api/generated/RecordingDataAccess1Proxy.h"
#include "drenn/api/generated/RecordingInformation1Proxy.h"

namespace calvane_recording {

struct State {
    bool recording = false;
    bool video = false;
    bool audio = false;
    bool metadata = false;
};

struct AudioAttributes {
    unsigned int bitsPerSample = 0;
    unsigned int channels = 0;
    double samplingFrequency = 0;
    Span range;
};

struct VideoAttributes {
    unsigned int encoding = 0;
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned int bitrate = 0;
    double frameRate = 0;
    Span range;
};

struct Event {
    Time time = 0;
    bool isOfTrack = false;
    bool present = false;
    unsigned int track = 0;
};

struct History {
    std::vector<Event> state; ///< What held at the begin.
    std::vector<Event> events;
};

/// Where to go on in a history: at the events of this time, behind so many of them.
struct HistoryCursor {
    Time time = 0;
    std::uint32_t skip = 0;
};

struct HistoryPage {
    History history; ///< The state only with the first page.
    HistoryCursor next;
    bool more = false;
};

struct Interval {
    Span span;
    unsigned int reason = 0; ///< 0: there is data.
};

/// Bytes of video, audio and metadata together, and of the history; as a limit, 0 is none.
struct Space {
    std::uint64_t data = 0;
    std::uint64_t history = 0;
};

/// What the recorder says of itself. Times are 0 where there is none.
struct Status {
    struct Track {
        unsigned int number = 0;
        bool present = false;
        std::uint64_t records = 0; ///< Written since the recorder was started.
        std::uint64_t bytes = 0;
        std::uint64_t refused = 0;
        std::uint64_t bytesPerHour = 0;
        Span span;
    };

    std::string state;
    std::string problem;
    Time limit = 0;
    Space maxSpace;
    Space usedSpace;
    std::uint64_t cardBytes = 0;
    std::uint64_t usableBytes = 0;
    std::uint64_t bytesPerHour = 0;
    Time fullAt = 0;
    std::string erasesFirst;
    std::vector<Track> tracks;

    /// How far the copy of the recording in a fleet's streams is.
    struct Uplink {
        std::string state;
        std::string problem; ///< Also why it does not answer.
        std::string server;
        Time lag = 0;
        Time backlog = 0; ///< Recorded time in front of that which is not copied yet.
        std::uint64_t bytesPerSecond = 0;
        std::uint64_t resends = 0;
        std::uint64_t gaps = 0;
    };
    std::optional<Uplink> uplink; ///< If one runs on this bus.
};

/// The recorder's services as a client sees them.
///
/// Threads: one.
/// Errors:  std::runtime_error that says what to do, for a bus that is not there, a recorder that does not run, a
///          denied access, and what a service answers; NotRunning and NoAnswer tell the cases without an answer apart.
class RecordingClient {
public:
    /// There is no bus, or no recorder on it.
    class NotRunning : public std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    /// The bus was lost, denies access, or the recorder took too long: another client may have more luck.
    class NoAnswer : public std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    /// `timeout` is that of each call; 0: as the bus library has it, 25 s.
    explicit RecordingClient(std::chrono::milliseconds timeout = {});
    ~RecordingClient();

    Span GetSummary();
    Span GetTrackSummary(unsigned int track);
    State GetState(Time at);
    AudioAttributes GetAudioAttributes(Time at);
    VideoAttributes GetVideoAttributes(Time at);
    std::vector<Interval> GetCoverage(unsigned int track, const Span& span);
    /// Calls back for one stretch after another, as they come page by page, until it returns false.
    void ForEachInterval(unsigned int track, const Span& span,
                         const std::function<bool(const Interval&)>& onInterval);
    /// All pages, the oldest event first.
    History GetHistory(const Span& span);
    /// At most `limit` events, and no more than 1000. The first page begins at {span.first, 0}.
    HistoryPage GetHistoryPage(const Span& span, const HistoryCursor& from, std::uint32_t limit);
    Status GetStatus();
    /// The identity of the recording on the card; empty without one.
    std::string GetCardId();
    Time GetMaximumRetention();
    void SetMaximumRetention(Time limit);
    Space GetMaximumSpace();
    void SetMaximumSpace(const Space& limit);
    /// A descriptor to read frames from, the caller's to close.
    int OpenRecords(unsigned int track, const Span& span);

    using OnPresent = std::function<void(unsigned int track, bool present)>;
    using OnDeleted = std::function<void(unsigned int track, const Span& span)>;
    /// Calls back for every event, until the bus is lost, which is thrown. `onTick` is called every 100 ms or so, and may
    /// ask this client; it ends the watch by returning false.
    void Watch(OnPresent onPresent, OnDeleted onDeleted, const std::function<bool()>& onTick = nullptr);

private:
    std::optional<Status::Uplink> AskUplink() const;

    class Information;
    class DataAccess;
    class Control;

    const std::unique_ptr<sdbus::IConnection> connection_;
    const std::unique_ptr<Information> information_;
    const std::unique_ptr<DataAccess> dataAccess_;
    const std::unique_ptr<Control> control_;
};

} // namespace calvane_recording
