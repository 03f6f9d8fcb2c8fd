#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"
#include "record_source/RecordSource.h"

namespace recording {

/// Asks the recorder's services for the records of some tracks, and gives them in the order of their times. It does so on a
/// thread of its own, so that whoever takes the records waits neither for the bus nor for the recorder.
///
/// Threads:  one, beside its own.
/// Memory:   about 16 MiB, and a record of each track.
/// Lifetime: destruction ends the reading within a quarter of a second, unless a call on the bus is under way.
class RecordFeed : private quarn::osa::Runnable {
public:
    using TrackKind = calvane_recording::TrackKind;
    struct Item {
        TrackKind track = TrackKind::Video;
        calvane_recording::Record record;
    };

    /// `span`: what is wanted of what is recorded, both times included.
    RecordFeed(const std::string& name, const calvane_recording::Span& span);
    ~RecordFeed() override;
    RecordFeed(const RecordFeed&) = delete;
    RecordFeed& operator=(const RecordFeed&) = delete;

    void Start(const std::set<TrackKind>& tracks);
    /// The next record, if there is one within a tenth of a second. Throws std::runtime_error when reading has failed, after
    /// all records in front of that.
    std::optional<Item> Next();
    /// Whether Next has given all there is.
    bool HasEnded();
    /// Of all tracks. Whole when it has ended.
    calvane_recording::Losses GetLosses();

private:
    void Run() override;
    void Stop() override;
    void ReadAll();
    bool IsStopping();
    bool Send(Item item);

    const calvane_recording::Span span_;
    std::set<TrackKind> tracks_;

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    std::deque<Item> items_;
    std::size_t bytes_ = 0; // Of the records among them.
    bool isStopping_ = false;
    bool hasRead_ = false; // All of it, or as far as it went.
    std::string failure_;
    calvane_recording::Losses losses_;

    quarn::osa::Thread thread_;
};

} // namespace recording
